#include "core/pricing/http_client.hpp"

#include <curl/curl.h>

#include <algorithm>
#include <charconv>
#include <ctime>
#include <memory>
#include <mutex>

#include "core/model/timestamp.hpp"

namespace kestrel::HttpClient {
namespace {

bool curlReady() {
    static std::once_flag once;
    static bool ready = false;
    std::call_once(once, [] { ready = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK; });
    return ready;
}

struct BodySink {
    std::string body;
    std::size_t maxBytes = 0;
};

std::size_t appendBody(char* data, std::size_t size, std::size_t count, void* user) {
    auto* sink = static_cast<BodySink*>(user);
    const std::size_t bytes = size * count;
    if (sink->body.size() + bytes > sink->maxBytes) {
        return 0;  // makes the transfer fail
    }
    sink->body.append(data, bytes);
    return bytes;
}

struct HeaderSink {
    std::optional<std::string> retryAfter;
};

std::size_t readHeader(char* data, std::size_t size, std::size_t count, void* user) {
    const std::size_t bytes = size * count;
    std::string_view line(data, bytes);
    constexpr std::string_view name = "retry-after:";
    if (line.size() > name.size()) {
        std::string lower(line.substr(0, name.size()));
        std::transform(lower.begin(), lower.end(), lower.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        if (lower == name) {
            std::string_view value = line.substr(name.size());
            while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) {
                value.remove_prefix(1);
            }
            while (!value.empty() &&
                   (value.back() == '\r' || value.back() == '\n' || value.back() == ' ')) {
                value.remove_suffix(1);
            }
            static_cast<HeaderSink*>(user)->retryAfter = std::string(value);
        }
    }
    return bytes;
}

struct EasyCleanup {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct SlistCleanup {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

}  // namespace

std::optional<double> parseRetryAfter(std::string_view value, double now) {
    if (value.empty()) {
        return std::nullopt;
    }
    long long seconds = 0;
    const auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), seconds);
    if (ec == std::errc{} && end == value.data() + value.size()) {
        return seconds < 0 ? std::nullopt : std::optional<double>(static_cast<double>(seconds));
    }
    std::tm tm{};
    const std::string text(value);
    const char* rest = strptime(text.c_str(), "%a, %d %b %Y %H:%M:%S GMT", &tm);
    if (rest == nullptr || *rest != '\0') {
        return std::nullopt;
    }
    const double at = static_cast<double>(timegm(&tm));
    return std::max(0.0, at - now);
}

std::expected<HttpResponse, HttpFailure> send(const HttpRequest& request) {
    if (!curlReady()) {
        return std::unexpected(HttpFailure::unreachable);
    }
    const std::unique_ptr<CURL, EasyCleanup> easy(curl_easy_init());
    if (!easy) {
        return std::unexpected(HttpFailure::unreachable);
    }
    CURL* h = easy.get();
    curl_slist* list = curl_slist_append(nullptr, "Accept: application/json");
    for (const auto& [name, value] : request.headers) {
        list = curl_slist_append(list, (name + ": " + value).c_str());
    }
    if (request.postBody) {
        list = curl_slist_append(list, ("Content-Type: " + request.contentType).c_str());
    }
    const std::unique_ptr<curl_slist, SlistCleanup> headers(list);
    // curl reads 0 as "no limit".
    const long timeoutMs = std::max<long>(1, static_cast<long>(request.timeout.count()));
    BodySink body{{}, request.maxBodyBytes};
    HeaderSink sink;
    curl_easy_setopt(h, CURLOPT_URL, request.url.c_str());
    if (request.postBody) {
        curl_easy_setopt(h, CURLOPT_POSTFIELDS, request.postBody->c_str());
        curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE, static_cast<long>(request.postBody->size()));
    } else {
        curl_easy_setopt(h, CURLOPT_HTTPGET, 1L);
    }
    curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, timeoutMs);
    curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT_MS, timeoutMs);
    // Timeouts by signal would disturb the caller's threads.
    curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(h, CURLOPT_USERAGENT, "kestrel/0.1");
    curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, appendBody);
    curl_easy_setopt(h, CURLOPT_WRITEDATA, &body);
    curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, readHeader);
    curl_easy_setopt(h, CURLOPT_HEADERDATA, &sink);
    const CURLcode code = curl_easy_perform(h);
    if (code == CURLE_OPERATION_TIMEDOUT) {
        return std::unexpected(HttpFailure::timedOut);
    }
    if (code == CURLE_UNSUPPORTED_PROTOCOL || code == CURLE_URL_MALFORMAT) {
        return std::unexpected(HttpFailure::refusedURL);
    }
    if (code != CURLE_OK) {
        return std::unexpected(HttpFailure::unreachable);
    }
    HttpResponse response;
    curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &response.status);
    response.body = std::move(body.body);
    if (sink.retryAfter) {
        response.retryAfterSeconds = parseRetryAfter(*sink.retryAfter, epochNow());
    }
    return response;
}

}  // namespace kestrel::HttpClient
