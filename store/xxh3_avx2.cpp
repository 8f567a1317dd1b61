// XXH3 built for AVX2, used only where the processor has it. Nothing but the
// header's inlined functions (all local to this file) is compiled here, so
// no instruction of AVX2 reaches code shared with the rest of the program.
#include <cstddef>
#include <cstdint>

#if ZXBLK_XXH3_AVX2
#define XXH_INLINE_ALL
#define XXH_VECTOR XXH_AVX2
#include <xxhash.h>

namespace zxblk {
namespace xxh3avx2 {

uint64_t whole(const void* data, size_t length) { return XXH3_64bits(data, length); }

void update(void* state, const void* data, size_t length) {
    XXH3_64bits_update(static_cast<XXH3_state_t*>(state), data, length);
}

uint64_t digest(const void* state) { return XXH3_64bits_digest(static_cast<const XXH3_state_t*>(state)); }

}  // namespace xxh3avx2
}  // namespace zxblk
#endif
