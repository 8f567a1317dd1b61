// What every public call does with a failure inside the library: it leaves
// as zxblk::Error with the same one-line message and its kind.
#pragma once
#include <new>

#include "store/store_error.h"
#include "zxblk/zxblk.h"

namespace zxblk {

template <class F>
auto guarded(F&& f) -> decltype(f()) {
    try {
        return f();
    } catch (const Error&) {
        throw;
    } catch (const StoreError& e) {
        throw Error(e.what(), e.kind());
    } catch (const std::bad_alloc&) {
        throw Error("out of memory", ErrorKind::unavailable);
    } catch (const std::exception& e) {
        throw Error(e.what());
    }
}

}  // namespace zxblk
