#!/usr/bin/env bash
# The library exports the interface a host uses and nothing of its insides.
set -euo pipefail
lib=$1
syms=$(nm -D --defined-only -C "$lib" | awk '{ $1=""; $2=""; print substr($0,3) }')
fail=0
for want in 'ZxBlkVhd::ZxBlkVhd(' 'ZxBlkVhd::readData(' 'ZxBlkVhd::updateExtentFlag(' 'vtable for ZxBlkVhd' \
            'CBitmapInfo::CBitmapInfo(' 'CBitmapInfo::SetBit(' 'CStateBitmapInfo::SetState(' \
            'ExtractBitmap(' 'CreateDMRMetaData(' 'restoreCallBack(' \
            'CExtentRestoreTarget::CExtentRestoreTarget(' 'CExtentRestoreTarget::Write('; do
  if ! grep -qF "$want" <<<"$syms"; then echo "missing export: $want"; fail=1; fi
done
for forbidden in 'FXCriticalSection::' 'FXLockableResource::' 'zeroSizeFor' 'GetCurrentThreadId'; do
  if grep -qF "$forbidden" <<<"$syms"; then echo "internal symbol exported: $forbidden"; fail=1; fi
done
exit $fail
