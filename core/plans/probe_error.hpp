#pragma once
// Why a probe brought no reading, and how an HTTP status maps onto that.

#include <optional>
#include <string>

#include "core/pricing/http_client.hpp"

namespace kestrel {

struct ProbeError {
    enum class Kind {
        unexpected,    // a body we cannot read, or a status we do not know; `detail` says which
        unauthorized,  // credentials refused (401, 403)
        expired,       // the sign-in expired and could not be refreshed
        rateLimited,   // 429; `retryAfterSeconds` when the provider said how long
        unreachable,   // no answer, a timeout, or the provider's own failure (5xx)
    };
    Kind kind = Kind::unexpected;
    std::string detail;  // short and free of credentials
    std::optional<double> retryAfterSeconds;

    bool operator==(const ProbeError&) const = default;
};

namespace ProbeErrors {

// Absent for 2xx.
std::optional<ProbeError> fromStatus(const HttpResponse& response);
ProbeError fromFailure(HttpFailure failure);
ProbeError unexpected(std::string detail);
std::string_view kindName(ProbeError::Kind kind);

}  // namespace ProbeErrors
}  // namespace kestrel
