// XXH3 (64 bits), of a byte range whole or fed in pieces: the checksums of
// snapshot blocks and of the store's side files. The sums are the reference
// implementation's, whichever code computes them: AVX2 where the processor
// has it (checked once, at run time), which hashes three times as fast as
// the SSE2 that every x86-64 has; checking blocks is what recalls, imports
// and verify spend most of their own time on.
#pragma once
#include <cstddef>
#include <cstdint>

namespace zxblk {

uint64_t xxh3(const void* data, size_t length);

class Xxh3Stream {
public:
    Xxh3Stream();
    void update(const void* data, size_t length);
    uint64_t digest() const;
    // Starts again, as new.
    void reset();

private:
    // The library's state, kept here rather than allocated.
    alignas(64) unsigned char m_state[640];
};

}  // namespace zxblk
