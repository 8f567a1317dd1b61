#include "bitmap/StateBitmapInfo.h"

#include "platform/Log.h"

CStateBitmapInfo::CStateBitmapInfo(ULONGLONG size, int states)
    : CBitmapInfo(static_cast<ULONGLONG>(static_cast<long long>(states)) * size), states(states) {}

CStateBitmapInfo::~CStateBitmapInfo() {}

ULONGLONG CStateBitmapInfo::Size() { return CBitmapInfo::Size(); }

bool CStateBitmapInfo::IsCurrentState(int state, ULONGLONG entry) {
    if (state < 0 || state >= states) {
        if (g_ptrLogWriter->GetLogLevel() >= -1)
            g_ptrLogWriter->WriteLog(-1, "bool CStateBitmapInfo::IsCurrentState(int, ULONGLONG)", __LINE__, 0, 0,
                                     "Unknown state");
        return false;
    }
    return IsBitSet(entry * static_cast<ULONGLONG>(states) + static_cast<ULONGLONG>(state));
}

void CStateBitmapInfo::SetState(ULONGLONG entry, int state) {
    if (state < 0 || state >= states) {
        if (g_ptrLogWriter->GetLogLevel() >= -1)
            g_ptrLogWriter->WriteLog(-1, "void CStateBitmapInfo::SetState(ULONGLONG, int)", __LINE__, 0, 0,
                                     "Unknown state");
        return;
    }
    // Held across the clear and the set so that no reader sees the entry
    // part-way; the bit operations take the recursive lock again.
    FXCriticalSection& lock = GetLock();
    lock.Lock();
    ResetState(entry);
    SetBit(entry * static_cast<ULONGLONG>(states) + static_cast<ULONGLONG>(state));
    lock.Unlock();
}

void CStateBitmapInfo::ResetState(ULONGLONG entry) {
    for (int s = 0; s < states; ++s) UnsetBit(entry * static_cast<ULONGLONG>(states) + static_cast<ULONGLONG>(s));
}
