// Whether a buffer holds only zero bytes, tested a machine word and then a
// vector at a time: the data path asks this of whole extents, where a byte
// loop would cost more than the rest of the work.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstring>

inline bool IsAllZeroBytes(const void* data, size_t length) {
    const unsigned char* p = static_cast<const unsigned char*>(data);
    if (length < 16) {
        for (size_t i = 0; i < length; ++i)
            if (p[i]) return false;
        return true;
    }
    // Most data is not zero in its first bytes: decide that before the scan.
    uint64_t head[2];
    std::memcpy(head, p, sizeof head);
    if (head[0] | head[1]) return false;
    // With the first 16 bytes known zero, the buffer is all zero exactly
    // when it equals itself shifted by 16; memcmp compares by vectors.
    return std::memcmp(p, p + 16, length - 16) == 0;
}
