#include "store/xxh3.h"

// Every function of the header inlined here, with this file's own compiler
// options: nothing is taken from a shared library built for the oldest
// processors.
#define XXH_INLINE_ALL
#include <xxhash.h>

namespace zxblk {

// The same, built for AVX2 (xxh3_avx2.cpp).
namespace xxh3avx2 {
uint64_t whole(const void* data, size_t length);
void update(void* state, const void* data, size_t length);
uint64_t digest(const void* state);
}  // namespace xxh3avx2

namespace {

static_assert(sizeof(XXH3_state_t) <= 640 && alignof(XXH3_state_t) <= 64, "XXH3_state_t outgrew Xxh3Stream");

bool avx2() {
#if ZXBLK_XXH3_AVX2
    static const bool has = __builtin_cpu_supports("avx2");
    return has;
#else
    return false;
#endif
}

XXH3_state_t* state(unsigned char* bytes) { return reinterpret_cast<XXH3_state_t*>(bytes); }
const XXH3_state_t* state(const unsigned char* bytes) { return reinterpret_cast<const XXH3_state_t*>(bytes); }

}  // namespace

uint64_t xxh3(const void* data, size_t length) {
    return avx2() ? xxh3avx2::whole(data, length) : XXH3_64bits(data, length);
}

Xxh3Stream::Xxh3Stream() { reset(); }

void Xxh3Stream::reset() { XXH3_64bits_reset(state(m_state)); }

void Xxh3Stream::update(const void* data, size_t length) {
    if (avx2())
        xxh3avx2::update(m_state, data, length);
    else
        XXH3_64bits_update(state(m_state), data, length);
}

uint64_t Xxh3Stream::digest() const {
    return avx2() ? xxh3avx2::digest(m_state) : XXH3_64bits_digest(state(m_state));
}

}  // namespace zxblk
