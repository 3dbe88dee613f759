#pragma once
// Helpers the probes share: lenient JSON reading (providers send numbers as strings and times in
// three units) and the guarded request that carries a credential.

#include <expected>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "core/model/account_snapshot.hpp"
#include "core/plans/probe_error.hpp"
#include "core/pricing/http_client.hpp"

namespace kestrel::probe_detail {

// A number, or a string holding one ("12.5"); absent otherwise.
std::optional<double> number(const nlohmann::json& object, std::string_view key);
std::optional<double> numberValue(const nlohmann::json& value);
std::optional<std::string> text(const nlohmann::json& object, std::string_view key);

// An instant given as ISO-8601 text, epoch seconds or epoch milliseconds (numbers above 1e11
// are milliseconds: seconds that large are thousands of years away).
std::optional<double> instant(const nlohmann::json& value);
std::optional<double> instant(const nlohmann::json& object, std::string_view key);

// The body as a JSON object, or an `unexpected` error naming what was wrong with it.
std::expected<nlohmann::json, ProbeError> objectBody(std::string_view body);

// Sends `request` unless its URL may not carry credentials, and maps failures and non-2xx
// statuses to ProbeError.
std::expected<HttpResponse, ProbeError> send(const HttpRequest& request);

// The window kind for a window of `seconds`: up to 6 h session5h, up to 8 days weekly, else
// monthly.
QuotaWindowKind kindForDuration(double seconds);

double clampPercent(double percent);

}  // namespace kestrel::probe_detail
