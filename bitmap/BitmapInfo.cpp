#include "bitmap/BitmapInfo.h"

#include <cstring>
#include <new>

#include "platform/Log.h"

CBitmapInfo::CBitmapInfo(ULONGLONG size) : m_storage(nullptr) {
    m_storage = new Storage{0, nullptr};
    m_storage->bytes = new (std::nothrow) unsigned char[size ? size : 1];
    if (!m_storage->bytes) {
        // Written without asking the writer for its level first: an
        // allocation failure is always worth a line.
        g_ptrLogWriter->WriteLog(-1, "CBitmapInfo::CBitmapInfo(ULONGLONG)", __LINE__, 0, 0,
                                 "Cannot allocate %llu bytes of non-paged pool memory for bitmap", size);
        delete m_storage;
        throw std::bad_alloc();
    }
    std::memset(m_storage->bytes, 0, size);
    m_storage->size = size;
}

CBitmapInfo::~CBitmapInfo() {
    if (m_storage) {
        delete[] m_storage->bytes;
        delete m_storage;
    }
}

ULONGLONG CBitmapInfo::Size() { return m_storage->size; }

// Positions at or beyond 8 x Size() lie outside the storage: a query answers
// false and a change is dropped, so no caller can reach memory it does not own.
bool CBitmapInfo::IsBitSet(ULONGLONG position) {
    auto_lock lock(&m_lock, true);
    if (position / 8 >= m_storage->size) return false;
    return (m_storage->bytes[position / 8] >> (position % 8)) & 1;
}

void CBitmapInfo::SetBit(ULONGLONG position) {
    auto_lock lock(&m_lock, true);
    if (position / 8 >= m_storage->size) return;
    m_storage->bytes[position / 8] |= static_cast<unsigned char>(1u << (position % 8));
}

void CBitmapInfo::UnsetBit(ULONGLONG position) {
    auto_lock lock(&m_lock, true);
    if (position / 8 >= m_storage->size) return;
    m_storage->bytes[position / 8] &= static_cast<unsigned char>(~(1u << (position % 8)));
}

void ExtractBitmap(boost::shared_ptr<CBitmapInfo> source, boost::shared_ptr<CBitmapInfo>& destination,
                   unsigned int startByte, unsigned int byteCount) {
    boost::shared_ptr<CBitmapInfo> slice(new CBitmapInfo(byteCount));
    destination = slice;
    // Positions are 32-bit, as the interface has always computed them; a
    // range past the end of the source reads as clear bits (see IsBitSet).
    unsigned int first = 8u * startByte;
    unsigned int count = 8u * byteCount;
    for (unsigned int i = 0; i < count; ++i) {
        if (source && source->IsBitSet(static_cast<unsigned int>(first + i)))
            slice->SetBit(i);
        else
            slice->UnsetBit(i);
    }
}
