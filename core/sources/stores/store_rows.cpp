#include "core/sources/stores/store_rows.hpp"

#include <sys/stat.h>

#include <charconv>
#include <cmath>

#include "core/model/timestamp.hpp"
#include "core/sources/line_source.hpp"

namespace kestrel::StoreRows {
namespace {

// Epoch seconds of 2000-01-01 and 2200-01-01: anything outside is not a record's time.
constexpr double kEarliest = 946684800.0;
constexpr double kLatest = 7258118400.0;
// Numbers above this are milliseconds (as seconds it would be the year 5138).
constexpr double kMillisecondsFrom = 1e11;

std::optional<double> fromNumber(double v) {
    if (!std::isfinite(v)) {
        return std::nullopt;
    }
    const double seconds = v > kMillisecondsFrom ? v / 1000.0 : v;
    if (seconds < kEarliest || seconds > kLatest) {
        return std::nullopt;
    }
    return seconds;
}

std::optional<double> fromText(std::string_view text) {
    double number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error == std::errc() && end == text.data() + text.size() && !text.empty()) {
        return fromNumber(number);
    }
    auto parsed = parseISO8601(text);
    return parsed ? fromNumber(*parsed) : std::nullopt;
}

}  // namespace

CountRead readCount(const nlohmann::json& object, std::initializer_list<std::string_view> keys,
                    int64_t& out) {
    if (!object.is_object()) {
        return CountRead::absent;
    }
    for (auto key : keys) {
        const auto it = object.find(key);
        if (it == object.end() || it->is_null()) {
            continue;
        }
        if (it->is_number_integer()) {
            // Unsigned values above int64 come back as is_number_unsigned too; bound them first.
            if (it->is_number_unsigned()) {
                const auto u = it->get<uint64_t>();
                if (u > static_cast<uint64_t>(kMaxTokenCount)) {
                    return CountRead::invalid;
                }
                out = static_cast<int64_t>(u);
                return CountRead::count;
            }
            const auto i = it->get<int64_t>();
            if (i < 0 || i > kMaxTokenCount) {
                return CountRead::invalid;
            }
            out = i;
            return CountRead::count;
        }
        if (it->is_number_float()) {
            const double d = it->get<double>();
            if (!std::isfinite(d) || d < 0 || d > static_cast<double>(kMaxTokenCount) ||
                std::trunc(d) != d) {
                return CountRead::invalid;
            }
            out = static_cast<int64_t>(d);
            return CountRead::count;
        }
        return CountRead::invalid;
    }
    return CountRead::absent;
}

CountRead cellCount(const SQLiteCell& cell, int64_t& out) {
    if (cell.isNull()) {
        return CountRead::absent;
    }
    if (std::holds_alternative<std::vector<unsigned char>>(cell.value)) {
        return CountRead::invalid;
    }
    const auto value = cell.integer();
    if (!value || *value < 0 || *value > kMaxTokenCount) {
        return CountRead::invalid;
    }
    out = *value;
    return CountRead::count;
}

std::string cellText(const SQLiteCell& cell) {
    if (const auto* s = std::get_if<std::string>(&cell.value)) {
        return *s;
    }
    if (const auto* i = std::get_if<int64_t>(&cell.value)) {
        return std::to_string(*i);
    }
    return {};
}

std::string stringField(const nlohmann::json& object,
                        std::initializer_list<std::string_view> keys) {
    if (!object.is_object()) {
        return {};
    }
    for (auto key : keys) {
        const auto it = object.find(key);
        if (it != object.end() && it->is_string() && !it->get_ref<const std::string&>().empty()) {
            return it->get<std::string>();
        }
    }
    return {};
}

std::optional<nlohmann::json> objectIn(std::string_view text) {
    auto json = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (!json.is_object()) {
        return std::nullopt;
    }
    return json;
}

std::optional<nlohmann::json> objectIn(const SQLiteCell& cell) {
    const auto text = cell.text();
    if (!text) {
        return std::nullopt;
    }
    return objectIn(std::string_view(*text));
}

std::optional<double> epochSeconds(const SQLiteCell& cell) {
    if (const auto* i = std::get_if<int64_t>(&cell.value)) {
        return fromNumber(static_cast<double>(*i));
    }
    if (const auto* d = std::get_if<double>(&cell.value)) {
        return fromNumber(*d);
    }
    if (const auto* s = std::get_if<std::string>(&cell.value)) {
        return fromText(*s);
    }
    return std::nullopt;
}

std::optional<double> epochSeconds(const nlohmann::json& value) {
    if (value.is_number()) {
        return fromNumber(value.get<double>());
    }
    if (value.is_string()) {
        return fromText(value.get_ref<const std::string&>());
    }
    return std::nullopt;
}

std::vector<std::filesystem::path> databaseAt(const std::filesystem::path& root,
                                              const std::filesystem::path& relative) {
    std::error_code ec;
    const auto database = root / relative;
    if (std::filesystem::is_regular_file(database, ec)) {
        return {database};
    }
    return {};
}

std::filesystem::path databasePath(const ReadonlySQLite& db) {
    const char* name = db.handle() ? sqlite3_db_filename(db.handle(), "main") : nullptr;
    return name ? std::filesystem::path(name) : std::filesystem::path();
}

SourceCheckpoint startCheckpoint(AgentSource source, int64_t parserVersion,
                                 const std::filesystem::path& database,
                                 const std::optional<SourceCheckpoint>& previous) {
    auto cp = LineSource::wholeFileCheckpoint(source, parserVersion, database);
    if (previous && previous->source == source && previous->parserVersion == parserVersion &&
        previous->stableID == cp.stableID) {
        cp.logicalHighWater = previous->logicalHighWater;
        cp.parserContext = previous->parserContext;
    }
    return cp;
}

std::string encodeCursor(const std::vector<SQLiteCell>& key) {
    nlohmann::json out = nlohmann::json::array();
    for (const auto& cell : key) {
        if (const auto* i = std::get_if<int64_t>(&cell.value)) {
            out.push_back({{"i", *i}});
        } else if (const auto* d = std::get_if<double>(&cell.value)) {
            out.push_back({{"r", *d}});
        } else if (const auto text = cell.text()) {
            out.push_back({{"t", *text}});
        } else {
            out.push_back(nullptr);
        }
    }
    return out.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::optional<std::vector<ReadonlySQLite::Binding>> decodeCursor(
    const std::optional<std::string>& text, std::size_t width) {
    if (!text || text->empty()) {
        return std::nullopt;
    }
    const auto json = nlohmann::json::parse(*text, nullptr, /*allow_exceptions=*/false);
    if (!json.is_array() || json.size() != width) {
        return std::nullopt;
    }
    std::vector<ReadonlySQLite::Binding> out;
    for (const auto& item : json) {
        if (!item.is_object() || item.size() != 1) {
            return std::nullopt;
        }
        if (auto it = item.find("i"); it != item.end() && it->is_number_integer()) {
            out.emplace_back(it->get<int64_t>());
        } else if (auto r = item.find("r"); r != item.end() && r->is_number()) {
            out.emplace_back(r->get<double>());
        } else if (auto t = item.find("t"); t != item.end() && t->is_string()) {
            out.emplace_back(t->get<std::string>());
        } else {
            return std::nullopt;
        }
    }
    return out;
}

int compareCells(const SQLiteCell& a, const SQLiteCell& b) {
    const auto rank = [](const SQLiteCell& c) {
        if (c.isNull()) {
            return 0;
        }
        if (std::holds_alternative<int64_t>(c.value) || std::holds_alternative<double>(c.value)) {
            return 1;
        }
        return std::holds_alternative<std::string>(c.value) ? 2 : 3;
    };
    const int ra = rank(a), rb = rank(b);
    if (ra != rb) {
        return ra < rb ? -1 : 1;
    }
    if (ra == 1) {
        const auto* ia = std::get_if<int64_t>(&a.value);
        const auto* ib = std::get_if<int64_t>(&b.value);
        if (ia && ib) {
            return *ia < *ib ? -1 : (*ia > *ib ? 1 : 0);
        }
        const double da = *a.real(), db = *b.real();
        return da < db ? -1 : (da > db ? 1 : 0);
    }
    if (ra >= 2) {
        const auto ta = *a.text(), tb = *b.text();
        return ta < tb ? -1 : (ta > tb ? 1 : 0);
    }
    return 0;
}

std::optional<int64_t> rowCursor(const std::optional<std::string>& text) {
    if (!text || text->empty()) {
        return std::nullopt;
    }
    int64_t out = 0;
    const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), out);
    if (error != std::errc() || end != text->data() + text->size()) {
        return std::nullopt;
    }
    return out;
}

}  // namespace kestrel::StoreRows
