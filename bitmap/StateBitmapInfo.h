// A bitmap read as entries of `states` bits, one bit per state.
#pragma once
#include "bitmap/BitmapInfo.h"

class ZXBLK_EXPORT CStateBitmapInfo : public CBitmapInfo {
public:
    CStateBitmapInfo(ULONGLONG size, int states);
    ~CStateBitmapInfo() override;
    ULONGLONG Size() override;
    bool IsCurrentState(int state, ULONGLONG entry);
    void SetState(ULONGLONG entry, int state);
    void ResetState(ULONGLONG entry);

private:
    int states;
};
