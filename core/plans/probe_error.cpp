#include "core/plans/probe_error.hpp"

namespace kestrel::ProbeErrors {

std::optional<ProbeError> fromStatus(const HttpResponse& response) {
    const long status = response.status;
    if (status >= 200 && status < 300) {
        return std::nullopt;
    }
    if (status == 401 || status == 403) {
        return ProbeError{ProbeError::Kind::unauthorized, "HTTP " + std::to_string(status), {}};
    }
    if (status == 429) {
        return ProbeError{ProbeError::Kind::rateLimited, "HTTP 429", response.retryAfterSeconds};
    }
    if (status >= 500) {
        return ProbeError{ProbeError::Kind::unreachable, "HTTP " + std::to_string(status), {}};
    }
    return unexpected("HTTP " + std::to_string(status));
}

ProbeError fromFailure(HttpFailure failure) {
    switch (failure) {
        case HttpFailure::timedOut:
            return {ProbeError::Kind::unreachable, "timed out", {}};
        case HttpFailure::refusedURL:
            return unexpected("unusable base URL");
        case HttpFailure::unreachable:
            break;
    }
    return {ProbeError::Kind::unreachable, "no answer", {}};
}

ProbeError unexpected(std::string detail) {
    return {ProbeError::Kind::unexpected, std::move(detail), {}};
}

std::string_view kindName(ProbeError::Kind kind) {
    switch (kind) {
        case ProbeError::Kind::unexpected:
            return "unexpected";
        case ProbeError::Kind::unauthorized:
            return "unauthorized";
        case ProbeError::Kind::expired:
            return "expired";
        case ProbeError::Kind::rateLimited:
            return "rateLimited";
        case ProbeError::Kind::unreachable:
            return "unreachable";
    }
    return "unexpected";
}

}  // namespace kestrel::ProbeErrors
