#include "core/model/checked_math.hpp"

#include <cstdio>
#include <cstdlib>

namespace kestrel {

void overflowAbort(std::string_view operation, int64_t lhs, int64_t rhs) {
    std::fprintf(stderr, "kestrel: fatal: 64-bit overflow in %.*s (%lld, %lld)\n",
                 static_cast<int>(operation.size()), operation.data(), static_cast<long long>(lhs),
                 static_cast<long long>(rhs));
    std::abort();
}

void conversionAbort(std::string_view operation, double value) {
    std::fprintf(stderr, "kestrel: fatal: %g out of the 64-bit range in %.*s\n", value,
                 static_cast<int>(operation.size()), operation.data());
    std::abort();
}

}  // namespace kestrel
