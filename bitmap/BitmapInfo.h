// One bit per sector, with a lock of its own. Sizes are in bytes; bit n lives
// in byte n / 8 under mask 1 << (n % 8).
#pragma once
#include <boost/shared_ptr.hpp>
#include "framework/Export.h"
#include "framework/FXLock.h"
#include "framework/WinTypes.h"

class ZXBLK_EXPORT CBitmapInfo {
public:
    explicit CBitmapInfo(ULONGLONG size);
    virtual ~CBitmapInfo();
    CBitmapInfo(const CBitmapInfo&) = delete;
    CBitmapInfo& operator=(const CBitmapInfo&) = delete;

    virtual ULONGLONG Size();
    bool IsBitSet(ULONGLONG position);
    void SetBit(ULONGLONG position);
    void UnsetBit(ULONGLONG position);
    FXCriticalSection& GetLock() { return m_lock; }

private:
    struct Storage {
        ULONGLONG size;
        unsigned char* bytes;
    };
    Storage* m_storage;
    FXCriticalSection m_lock;
};

ZXBLK_EXPORT void ExtractBitmap(boost::shared_ptr<CBitmapInfo> source,
                                boost::shared_ptr<CBitmapInfo>& destination, unsigned int startByte,
                                unsigned int byteCount);
