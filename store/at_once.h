// Calls that mostly wait on a store a network away, made at once rather
// than in turn: n calls cost one round trip, not n.
#pragma once
#include <cstddef>
#include <system_error>
#include <thread>
#include <vector>

namespace zxblk {

// Runs fn(0) .. fn(n - 1), each on a thread of its own (the caller's takes
// the first; where no thread is to be had, the caller runs it in turn) and
// returns when all are done. fn must not throw.
template <class F>
void runAtOnce(size_t n, F fn) {
    std::vector<std::thread> others;
    for (size_t i = 1; i < n; ++i) {
        try {
            others.emplace_back(fn, i);
        } catch (const std::system_error&) {
            fn(i);
        }
    }
    if (n) fn(0);
    for (std::thread& t : others) t.join();
}

}  // namespace zxblk
