#pragma once
// Token and money sums must never wrap: an overflow means corrupted input or a logic error, and
// a silently wrong total is worse than stopping. Each helper aborts naming the operation.

#include <cmath>
#include <cstdint>
#include <string_view>

namespace kestrel {

[[noreturn]] void overflowAbort(std::string_view operation, int64_t lhs, int64_t rhs);
[[noreturn]] void conversionAbort(std::string_view operation, double value);

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

// `value` truncated toward zero; aborts when that is not a finite number within int64_t.
inline int64_t checkedTruncate(double value, std::string_view what = "conversion") {
    // 2^63 is exact in a double; every double below it truncates into range.
    constexpr double limit = 9223372036854775808.0;
    const double t = std::trunc(value);
    if (!(t >= -limit && t < limit)) {
        conversionAbort(what, value);
    }
    return static_cast<int64_t>(t);
}

}  // namespace kestrel
