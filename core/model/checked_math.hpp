#pragma once
// Token and money sums must never wrap: an overflow means corrupted input or a logic error, and
// a silently wrong total is worse than stopping. Each helper aborts naming the operation.

#include <cstdint>
#include <string_view>

namespace kestrel {

[[noreturn]] void overflowAbort(std::string_view operation, int64_t lhs, int64_t rhs);

inline int64_t checkedAdd(int64_t a, int64_t b, std::string_view what = "addition") {
    int64_t r;
    if (__builtin_add_overflow(a, b, &r)) {
        overflowAbort(what, a, b);
    }
    return r;
}

inline int64_t checkedSub(int64_t a, int64_t b, std::string_view what = "subtraction") {
    int64_t r;
    if (__builtin_sub_overflow(a, b, &r)) {
        overflowAbort(what, a, b);
    }
    return r;
}

inline int64_t checkedMul(int64_t a, int64_t b, std::string_view what = "multiplication") {
    int64_t r;
    if (__builtin_mul_overflow(a, b, &r)) {
        overflowAbort(what, a, b);
    }
    return r;
}

}  // namespace kestrel
