#pragma once
// The JSON records of the opencode family (opencode, Kilo CLI, MiMo Code): an assistant
// message's `data`, its step-finish parts, and what of them becomes one usage event. Shared by
// the database reader and the reader of the older per-message JSON files, so that a message
// found in both places yields the same event.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "core/model/agent_source.hpp"
#include "core/sources/event_draft.hpp"

namespace kestrel::OpencodeMessage {

// One model call's counts (a step-finish part) or their sum over a message. `input` excludes
// the cache counts, as these agents store it.
struct Usage {
    int64_t input = 0;
    int64_t cacheRead = 0;
    int64_t cacheWrite = 0;
    int64_t output = 0;
    int64_t reasoning = 0;
    std::optional<int64_t> total;   // the agent's own total, when every summed record had one
    std::optional<double> costUSD;  // the agent's own cost, when any summed record had one
    int64_t records = 0;            // how many records were added into this sum

    bool empty() const;
    void add(const Usage& other);
};

// What the reader needs from one message's `data` (the columns of a database row fill in the
// identifiers the JSON leaves out).
struct Message {
    std::string id;
    std::string sessionID;
    std::string role;
    std::string modelID;
    std::string providerID;
    std::string cwd;  // path.cwd
    std::optional<double> createdMs;
    bool completed = false;      // time.completed present, or the call ended in an error
    std::optional<Usage> usage;  // the message's own tokens/cost; absent without a tokens object
    bool importMarked = false;   // carries a field that says it came from another agent
};

enum class ParseStatus {
    ok,
    malformed,  // not a JSON object, or a count of the wrong type or out of range
};

struct ParsedMessage {
    ParseStatus status = ParseStatus::malformed;
    Message message;
};

// Parses a message's `data`.
ParsedMessage parseMessage(std::string_view json);

// A part's `data`: the usage of a step-finish part; absent for parts of other types. `malformed`
// is set for a step-finish part whose counts cannot be read.
std::optional<Usage> parseStepFinish(std::string_view json, bool& malformed);

// MiMo Code copies Claude Code and Codex history into its own store; the marker it leaves is not
// known, so an identifier decides: opencode-style ids are a short type prefix, "_", 12 lowercase
// hex digits (creation time) and 14 base-62 characters, while imported records keep the ids
// their agent gave them: UUIDs (Claude Code lines and sessions, Codex sessions) or Anthropic
// message ids ("msg_01..." with 22 base-62 characters, "msg_bdrk_...", "msg_vrtx_...").
bool isForeignID(std::string_view id);
// The opencode-style shape described above.
bool isNativeID(std::string_view id);
// A field value naming another agent as the record's origin ("claude", "claude-code",
// "codex", "codex-cli", or anything containing "import").
bool namesImportOrigin(std::string_view value);

// Whether a MiMo message is imported history: its own id has a foreign shape, it or its session
// carries an explicit import marker, or its session has a foreign id and the message does not
// have an id MiMo itself wrote (a session imported and then continued keeps the new replies).
bool isImported(const Message& m, bool sessionMarked, std::string_view sessionID);

// Where the event's counts come from: the sum of the step-finish parts (per call), else the
// message's own tokens (which hold only the last call in builds that write parts).
struct Counted {
    Usage usage;
    bool fromParts = false;
};
std::optional<Counted> countedUsage(const Message& m, const std::optional<Usage>& stepSum);

// The draft of the event for one assistant message; `cwd` is the session's directory (the
// message's path.cwd when empty). `costIncludesChildren`: the session spawned sub-agent
// sessions whose cost the agent may have folded into this one (Kilo CLI), so the reported
// cost is kept for audit only and the tokens are priced instead.
EventDraft draftFor(AgentSource source, const Message& m, const Counted& counted,
                    std::string_view sessionID, std::string_view cwd, bool costIncludesChildren,
                    double fallbackTime);

}  // namespace kestrel::OpencodeMessage
