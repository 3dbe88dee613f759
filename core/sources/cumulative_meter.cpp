#include "core/sources/cumulative_meter.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

#include "core/model/event_id.hpp"
#include "core/sources/event_draft.hpp"
#include "core/sources/json_fields.hpp"
#include "core/sources/line_source.hpp"

namespace kestrel::CumulativeMeter {
namespace {

std::optional<double> mtimeOf(const std::filesystem::path& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
        return std::nullopt;
    }
    return static_cast<double>(st.st_mtim.tv_sec) + st.st_mtim.tv_nsec / 1e9;
}

}  // namespace

std::optional<int64_t> cellCount(const SQLiteCell& cell, bool& ok) {
    if (cell.isNull()) {
        return std::nullopt;
    }
    const auto value = cell.integer();
    if (!value || *value < 0 || *value > JsonFields::kMaxTokenCount) {
        ok = false;
        return std::nullopt;
    }
    return value;
}

std::optional<int64_t> jsonCount(const nlohmann::json& object, const char* key, bool& ok) {
    const auto it = object.find(key);
    if (it == object.end() || it->is_null()) {
        return std::nullopt;
    }
    if (it->is_number_integer()) {
        const auto v = it->is_number_unsigned()
                           ? static_cast<int64_t>(std::min<uint64_t>(
                                 it->get<uint64_t>(), JsonFields::kMaxTokenCount + 1))
                           : it->get<int64_t>();
        if (v >= 0 && v <= JsonFields::kMaxTokenCount) {
            return v;
        }
    } else if (it->is_number_float()) {
        const double d = it->get<double>();
        if (std::isfinite(d) && d >= 0 && d <= static_cast<double>(JsonFields::kMaxTokenCount)) {
            return static_cast<int64_t>(std::llround(d));
        }
    }
    ok = false;
    return std::nullopt;
}

std::string cellText(const SQLiteCell& cell) {
    if (const auto* i = std::get_if<int64_t>(&cell.value)) {
        return std::to_string(*i);
    }
    return cell.text().value_or("");
}

std::string jsonText(const nlohmann::json& object, const char* key) {
    const auto it = object.find(key);
    return it != object.end() && it->is_string() ? it->get<std::string>() : std::string();
}

bool plausible(const TokenSnapshot& t) {
    for (const int64_t v :
         {t.input, t.cachedInput, t.cacheCreate, t.output, t.reasoning, t.providerTotal}) {
        if (v < 0 || v > JsonFields::kMaxTokenCount) {
            return false;
        }
    }
    return true;
}

double storeTime(const std::filesystem::path& store) {
    const double main = mtimeOf(store).value_or(0);
    auto wal = store;
    wal += "-wal";
    return std::max(main, mtimeOf(wal).value_or(0));
}

std::string recordID(const TokenSnapshot& t) {
    return "t" + std::to_string(t.input) + "." + std::to_string(t.cachedInput) + "." +
           std::to_string(t.cacheCreate) + "." + std::to_string(t.output) + "." +
           std::to_string(t.reasoning) + "." + std::to_string(t.providerTotal);
}

bool meter(AgentSource source, SQLiteCumulativeContext& state, const Reading& reading,
           double fallbackTime, const SourceEventSink& sink) {
    const auto added = state.advance(reading.key, reading.totals, reading.sequence);
    if (!added) {
        return false;
    }
    EventDraft d;
    d.source = source;
    const std::string record = reading.scope.empty()
                                   ? recordID(reading.totals)
                                   : reading.scope + "/" + recordID(reading.totals);
    d.id = EventID::local(source, reading.sessionID, record, reading.model);
    d.occurredAt = reading.updatedAt.value_or(fallbackTime);
    d.timeQuality =
        reading.updatedAt ? ObservationTimeQuality::trusted : ObservationTimeQuality::inferred;
    // Counts the agent reported, but as differences of its totals between two scans.
    d.precision = UsagePrecision::derivedExact;
    d.granularity = UsageGranularity::sessionAggregate;
    d.provider = reading.provider;
    d.model = reading.model;
    d.sessionID = reading.sessionID;
    d.cwd = reading.cwd;
    d.projectName = reading.projectName;
    d.input = added->input;
    d.cachedInput = added->cachedInput;
    d.cacheWrite = added->cacheCreate;
    d.output = added->output;
    d.reasoning = added->reasoning;
    if (reading.hasProviderTotal) {
        d.providerTotal = added->providerTotal;
    }
    d.rawExtras = reading.rawExtras;
    sink(buildEvent(d));
    return true;
}

SourceCheckpoint checkpoint(AgentSource source, int64_t parserVersion,
                            const std::filesystem::path& store,
                            const SQLiteCumulativeContext& state) {
    auto cp = LineSource::wholeFileCheckpoint(source, parserVersion, store);
    cp.parserContext = state.encode();
    return cp;
}

}  // namespace kestrel::CumulativeMeter
