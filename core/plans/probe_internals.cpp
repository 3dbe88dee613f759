#include "core/plans/probe_internals.hpp"

#include <algorithm>
#include <charconv>

#include "core/model/timestamp.hpp"
#include "core/plans/provider_hosts.hpp"

namespace kestrel::probe_detail {

std::optional<double> numberValue(const nlohmann::json& value) {
    if (value.is_number()) {
        return value.get<double>();
    }
    if (value.is_string()) {
        const auto& s = value.get_ref<const std::string&>();
        double out = 0;
        const auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), out);
        if (ec == std::errc{} && end == s.data() + s.size() && !s.empty()) {
            return out;
        }
    }
    return std::nullopt;
}

std::optional<double> number(const nlohmann::json& object, std::string_view key) {
    if (!object.is_object()) {
        return std::nullopt;
    }
    const auto it = object.find(key);
    return it == object.end() ? std::nullopt : numberValue(*it);
}

std::optional<std::string> text(const nlohmann::json& object, std::string_view key) {
    if (!object.is_object()) {
        return std::nullopt;
    }
    const auto it = object.find(key);
    if (it == object.end() || !it->is_string() || it->get_ref<const std::string&>().empty()) {
        return std::nullopt;
    }
    return it->get<std::string>();
}

std::optional<double> instant(const nlohmann::json& value) {
    if (value.is_string()) {
        if (auto parsed = parseISO8601(value.get_ref<const std::string&>())) {
            return parsed;
        }
    }
    auto n = numberValue(value);
    if (!n || *n <= 0) {
        return std::nullopt;
    }
    return *n > 1e11 ? *n / 1000.0 : *n;
}

std::optional<double> instant(const nlohmann::json& object, std::string_view key) {
    if (!object.is_object()) {
        return std::nullopt;
    }
    const auto it = object.find(key);
    return it == object.end() ? std::nullopt : instant(*it);
}

std::expected<nlohmann::json, ProbeError> objectBody(std::string_view body) {
    if (body.find_first_not_of(" \t\r\n") == std::string_view::npos) {
        return std::unexpected(ProbeErrors::unexpected("empty body"));
    }
    auto json = nlohmann::json::parse(body, nullptr, false);
    if (json.is_discarded()) {
        return std::unexpected(ProbeErrors::unexpected("body is not JSON"));
    }
    if (!json.is_object()) {
        return std::unexpected(ProbeErrors::unexpected("body is not a JSON object"));
    }
    return json;
}

std::expected<HttpResponse, ProbeError> send(const HttpRequest& request) {
    if (!ProviderHosts::mayCarryCredentials(request.url)) {
        return std::unexpected(
            ProbeErrors::unexpected("credentials go only over https or loopback"));
    }
    auto response = HttpClient::send(request);
    if (!response) {
        return std::unexpected(ProbeErrors::fromFailure(response.error()));
    }
    if (auto error = ProbeErrors::fromStatus(*response)) {
        return std::unexpected(*error);
    }
    return std::move(*response);
}

QuotaWindowKind kindForDuration(double seconds) {
    if (seconds <= 6 * 3600) {
        return QuotaWindowKind::session5h;
    }
    if (seconds <= 8 * 86400) {
        return QuotaWindowKind::weekly;
    }
    return QuotaWindowKind::monthly;
}

double clampPercent(double percent) {
    return std::clamp(percent, 0.0, 100.0);
}

}  // namespace kestrel::probe_detail
