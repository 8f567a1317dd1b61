#!/usr/bin/env python3
"""Damages a VHD file in one chosen way, for tests of what import refuses.

vhd_tamper.py MODE IN OUT
  checksum   flip a footer byte without fixing the checksum
  bat-past   point the first allocated block past the end of the file
  overlap    point the second allocated block at the first one
  blocksize  make the block size 3 MiB (not a power of two), checksum fixed
  truncate   cut the file in the middle of its blocks
  parent     give a differencing image another parent id, checksum fixed
"""
import struct
import sys

mode, src, dst = sys.argv[1:4]
data = bytearray(open(src, "rb").read())


def fix_header_checksum(at):
    data[at + 36:at + 40] = b"\0\0\0\0"
    data[at + 36:at + 40] = struct.pack(">I", ~sum(data[at:at + 1024]) & 0xFFFFFFFF)


footer_at = len(data) - 512
header_at = struct.unpack(">Q", data[footer_at + 16:footer_at + 24])[0]
table_at = struct.unpack(">Q", data[header_at + 16:header_at + 24])[0]
entries = struct.unpack(">I", data[header_at + 28:header_at + 32])[0]
allocated = [i for i in range(entries) if data[table_at + 4 * i:table_at + 4 * i + 4] != b"\xff\xff\xff\xff"]

if mode == "checksum":
    data[footer_at + 40] ^= 0x01
elif mode == "bat-past":
    data[table_at + 4 * allocated[0]:table_at + 4 * allocated[0] + 4] = struct.pack(">I", len(data) // 512 + 10)
elif mode == "overlap":
    first = data[table_at + 4 * allocated[0]:table_at + 4 * allocated[0] + 4]
    data[table_at + 4 * allocated[1]:table_at + 4 * allocated[1] + 4] = first
elif mode == "blocksize":
    data[header_at + 32:header_at + 36] = struct.pack(">I", 3 << 20)
    fix_header_checksum(header_at)
elif mode == "truncate":
    data = data[:len(data) // 2]
elif mode == "parent":
    data[header_at + 40] ^= 0xFF
    fix_header_checksum(header_at)
else:
    sys.exit("unknown mode " + mode)
open(dst, "wb").write(data)
