#include "core/sources/transcripts/editor_tasks_reader.hpp"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

#include "core/model/event_id.hpp"
#include "core/sources/event_draft.hpp"
#include "core/sources/file_discovery.hpp"
#include "core/sources/json_fields.hpp"
#include "core/sources/line_source.hpp"
#include "core/sources/transcripts/json_line.hpp"

namespace kestrel::EditorTasksReader {

using nlohmann::json;

std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors) {
    DiscoveryOptions options;
    options.accept = [](const std::filesystem::path& p) {
        return p.filename() == "ui_messages.json";
    };
    options.maxDepth = 3;  // tasks/<id>/ui_messages.json
    options.errors = errors;
    return discoverFiles(root / "tasks", options);
}

int64_t uncachedInput(int64_t tokensIn, int64_t cacheReads, int64_t cacheWrites,
                      const std::optional<std::string>& apiProtocol, const std::string& model) {
    const int64_t cache = cacheReads + cacheWrites;
    bool includesCache = false;
    if (apiProtocol) {
        includesCache = *apiProtocol != "anthropic";
    } else {
        includesCache = providerForModel(model) != "anthropic";
    }
    if (!includesCache || cache > tokensIn) {
        return tokensIn;
    }
    return tokensIn - cache;
}

namespace {

// The model and working directory in force from one user message on.
struct Turn {
    std::optional<double> at;
    std::string model;
    std::string cwd;
};

// The text between the last `open` and the following `close` in `text`.
std::string lastBetween(std::string_view text, std::string_view open, std::string_view close) {
    const auto start = text.rfind(open);
    if (start == std::string_view::npos) {
        return {};
    }
    const auto from = start + open.size();
    const auto end = text.find(close, from);
    if (end == std::string_view::npos || end - from > 512) {
        return {};
    }
    std::string value(text.substr(from, end - from));
    const auto first = value.find_first_not_of(" \t\r\n");
    const auto last = value.find_last_not_of(" \t\r\n");
    return first == std::string::npos ? std::string() : value.substr(first, last - first + 1);
}

void scanText(std::string_view text, Turn& turn) {
    if (auto model = lastBetween(text, "<model>", "</model>"); !model.empty()) {
        turn.model = std::move(model);
    }
    for (auto open : {"Current Workspace Directory (", "Current Working Directory ("}) {
        if (auto cwd = lastBetween(text, open, ")"); !cwd.empty()) {
            turn.cwd = std::move(cwd);
        }
    }
}

// The user turns of the conversation, each with the model and directory carried forward from
// the turns before it. Empty when the history is missing, too large or not understood: the
// usage is still read, without a model.
std::vector<Turn> userTurns(const std::filesystem::path& history) {
    std::vector<Turn> turns;
    std::error_code ec;
    if (!std::filesystem::exists(history, ec)) {
        return turns;
    }
    auto text = LineSource::readSmallFile(history, kMaxHistoryBytes);
    if (!text) {
        return turns;
    }
    const auto doc = json::parse(*text, nullptr, false);
    if (!doc.is_array()) {
        return turns;
    }
    Turn carried;
    for (const auto& message : doc) {
        if (!message.is_object() || message.value("role", json()) != "user") {
            continue;
        }
        Turn turn = carried;
        turn.at.reset();
        if (auto ts = message.find("ts"); ts != message.end() && ts->is_number()) {
            turn.at = ts->get<double>() / 1000.0;
        }
        const auto content = message.find("content");
        if (content != message.end() && content->is_string()) {
            scanText(content->get_ref<const std::string&>(), turn);
        } else if (content != message.end() && content->is_array()) {
            for (const auto& block : *content) {
                if (block.is_object()) {
                    if (auto t = block.find("text"); t != block.end() && t->is_string()) {
                        scanText(t->get_ref<const std::string&>(), turn);
                    }
                }
            }
        }
        carried = turn;
        turns.push_back(std::move(turn));
    }
    return turns;
}

// The turn in force for the `ordinal`-th request made at `at`: by time when every turn has
// one, else by position (each request answers the user turn before it).
const Turn* turnFor(const std::vector<Turn>& turns, std::optional<double> at, std::size_t ordinal) {
    if (turns.empty()) {
        return nullptr;
    }
    const bool timed =
        at && std::ranges::all_of(turns, [](const Turn& t) { return t.at.has_value(); });
    if (timed) {
        const Turn* best = nullptr;
        for (const auto& t : turns) {
            if (*t.at <= *at + 1e-3) {
                best = &t;
            }
        }
        return best != nullptr ? best : &turns.front();
    }
    return &turns[std::min(ordinal, turns.size() - 1)];
}

// One count of the request JSON: absent or null is zero; anything but a count is damage.
bool readCount(const json& request, const char* key, int64_t& out, bool& present) {
    auto it = request.find(key);
    if (it == request.end() || it->is_null()) {
        return true;
    }
    present = true;
    if (it->is_number_integer() || it->is_number_float()) {
        const double v = it->get<double>();
        if (v >= 0 && v <= static_cast<double>(JsonFields::kMaxTokenCount)) {
            out = static_cast<int64_t>(std::llround(v));
            return true;
        }
    }
    return false;
}

}  // namespace

std::expected<IngestResult, FileError> ingest(const SourceReadContext& context) {
    const AgentSource source = context.source;
    const auto& uiMessages = context.file;
    const auto& sink = context.sink;
    auto text = LineSource::readSmallFile(uiMessages, kMaxMessagesBytes);
    if (!text) {
        return std::unexpected(text.error());
    }
    IngestResult result;
    result.checkpoint = LineSource::wholeFileCheckpoint(source, parserVersion, uiMessages);
    result.stats.bytes = static_cast<int64_t>(text->size());
    const auto doc = json::parse(*text, nullptr, false);
    if (!doc.is_array()) {
        // Half-written while being replaced, or a new layout: either way nothing to read now.
        result.stats.malformed = 1;
        result.formatChanged = !text->empty();
        return result;
    }
    const auto taskID = uiMessages.parent_path().filename().string();
    const double fileTime = JsonLine::modificationTime(uiMessages);
    const auto turns = userTurns(uiMessages.parent_path() / "api_conversation_history.json");
    int64_t readable = 0, unreadable = 0;
    std::size_t ordinal = 0;

    for (const auto& message : doc) {
        ++result.stats.lines;
        if (!message.is_object()) {
            ++result.stats.malformed;
            continue;
        }
        if (message.value("say", json()) != "api_req_started") {
            ++result.stats.withoutUsage;
            continue;
        }
        const std::size_t index = ordinal++;
        const auto inner = message.find("text");
        const json request = inner != message.end() && inner->is_string()
                                 ? json::parse(inner->get_ref<const std::string&>(), nullptr, false)
                                 : json();
        if (!request.is_object()) {
            ++result.stats.malformed;
            ++unreadable;
            continue;
        }
        int64_t tokensIn = 0, tokensOut = 0, cacheReads = 0, cacheWrites = 0;
        bool present = false;
        if (!readCount(request, "tokensIn", tokensIn, present) ||
            !readCount(request, "tokensOut", tokensOut, present) ||
            !readCount(request, "cacheReads", cacheReads, present) ||
            !readCount(request, "cacheWrites", cacheWrites, present)) {
            ++result.stats.malformed;
            ++unreadable;
            continue;
        }
        ++readable;
        if (!present || (tokensIn == 0 && tokensOut == 0 && cacheReads == 0 && cacheWrites == 0)) {
            ++result.stats.withoutUsage;  // started but not answered (yet)
            continue;
        }
        std::optional<double> at;
        int64_t tsMillis = 0;
        if (auto ts = message.find("ts"); ts != message.end() && ts->is_number()) {
            if (const double ms = ts->get<double>(); ms > 0 && ms < 1e15) {
                at = ms / 1000.0;
                tsMillis = static_cast<int64_t>(std::llround(ms));
            }
        }
        std::optional<std::string> protocol;
        if (auto p = request.find("apiProtocol"); p != request.end() && p->is_string()) {
            protocol = p->get<std::string>();
        }
        const Turn* turn = turnFor(turns, at, index);

        EventDraft d;
        d.source = source;
        d.model = turn != nullptr ? turn->model : std::string();
        d.cwd = turn != nullptr ? turn->cwd : std::string();
        d.sessionID = taskID;
        // The file is rewritten whole, so a request is named by its task and start time.
        d.id = EventID::local(source, taskID,
                              at ? std::to_string(tsMillis) : "#" + std::to_string(index), "");
        d.occurredAt = at.value_or(fileTime);
        d.timeQuality = at ? ObservationTimeQuality::trusted : ObservationTimeQuality::inferred;
        d.input = uncachedInput(tokensIn, cacheReads, cacheWrites, protocol, d.model);
        d.cachedInput = cacheReads;
        d.cacheWrite = cacheWrites;
        d.output = tokensOut;
        json extras = json::object();
        if (auto cost = request.find("cost");
            cost != request.end() && cost->is_number() && cost->get<double>() >= 0) {
            extras["costUSD"] = cost->get<double>();
        }
        if (!protocol) {
            extras["tokensInRule"] = d.input == tokensIn ? "excludesCache" : "includesCache";
        }
        if (!extras.empty()) {
            d.rawExtras = extras.dump(-1, ' ', false, json::error_handler_t::replace);
        }
        sink(buildEvent(d));
    }
    result.formatChanged = unreadable > 0 && readable == 0;
    return result;
}

SourceReader reader() {
    return {SourceReaderKind::store, parserVersion, discover, ingest};
}

}  // namespace kestrel::EditorTasksReader
