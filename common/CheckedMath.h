// Overflow-checked arithmetic for sample counts, sums and bin counts.
//
// A count that would wrap is a corrupt window, and a corrupt window is worse
// than none: on overflow the process is terminated with an ERROR line naming
// what overflowed, instead of carrying on with a wrapped value.
//
//   sum = zem::checkedAdd(sum, uint64_t{value}, "Counter sum");
#pragma once

#include <type_traits>

namespace zem {
namespace internal {

// Logs "arithmetic overflow in <what>" and aborts. Never returns.
[[noreturn]] __attribute__((cold, noinline)) void overflowAbort(const char* what);

}  // namespace internal

// Returns a + b, or terminates the process if the result does not fit in T.
template <typename T>
inline T checkedAdd(T a, T b, const char* what) {
    static_assert(std::is_integral<T>::value, "checkedAdd is for integers");
    T r;
    if (__builtin_expect(__builtin_add_overflow(a, b, &r), 0)) internal::overflowAbort(what);
    return r;
}

// Returns a - b, or terminates the process if the result does not fit in T.
template <typename T>
inline T checkedSub(T a, T b, const char* what) {
    static_assert(std::is_integral<T>::value, "checkedSub is for integers");
    T r;
    if (__builtin_expect(__builtin_sub_overflow(a, b, &r), 0)) internal::overflowAbort(what);
    return r;
}

// Increments v in place, terminating the process instead of wrapping.
template <typename T>
inline void checkedIncrement(T& v, const char* what) {
    v = checkedAdd(v, T{1}, what);
}

}  // namespace zem
