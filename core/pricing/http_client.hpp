#pragma once
// The one HTTP exchange the quota probes and the exchange-rate fetch make: a request with headers,
// and either a status with its body or the reason no answer came. Nothing is logged: headers
// carry credentials.

#include <chrono>
#include <cstddef>
#include <expected>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kestrel {

struct HttpRequest {
    std::string url;
    std::vector<std::pair<std::string, std::string>> headers;
    std::optional<std::string> postBody;  // absent: GET
    std::string contentType = "application/json";
    std::chrono::milliseconds timeout{15000};
    std::size_t maxBodyBytes = 4 << 20;  // a larger body fails as unreachable
};

struct HttpResponse {
    long status = 0;
    std::string body;
    std::optional<double> retryAfterSeconds;  // Retry-After given as seconds or as an HTTP date
};

enum class HttpFailure { unreachable, timedOut, refusedURL };

namespace HttpClient {

// Performs the request without following redirects (a redirect would carry the credentials to a
// host nobody chose), over http or https only (a URL from the settings must not read local
// files).
std::expected<HttpResponse, HttpFailure> send(const HttpRequest& request);

// "120" or an IMF date ("Wed, 21 Oct 2026 07:28:00 GMT") as seconds from `now`; absent when
// unreadable. A date in the past gives 0.
std::optional<double> parseRetryAfter(std::string_view value, double now);

}  // namespace HttpClient
}  // namespace kestrel
