#pragma once
// The session transcripts of pi and the agents built on it (omp, Prime Agent, OpenClaw's older
// releases, Craft's pi backend): one JSON object per line, a "session" header naming the session
// and its working folder, per-request usage on assistant messages, and a few extra entries that
// carry usage of their own (omp's side calls, Prime Agent's child usage). One parser serves all
// of them; each reader only finds its files and picks the reader kind.

#include <cstdint>
#include <expected>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/model/agent_source.hpp"
#include "core/model/source_checkpoint.hpp"
#include "core/sources/event_draft.hpp"
#include "core/sources/file_error.hpp"
#include "core/sources/ingest_result.hpp"
#include "core/sources/line_source.hpp"
#include "core/sources/source_readers.hpp"

namespace kestrel::PiSessionFormat {

// One usage record as the line holds it, before the token family's rule is applied.
struct PiUsage {
    std::string entryID;  // the entry's "id"; empty when the entry has none
    // The message's epoch-millisecond time as text (the entry's ISO time when the message has
    // none): forks copy it unchanged, so it is part of the identity.
    std::string stamp;
    std::optional<double> occurredAt;
    std::string api;
    std::string provider;
    std::string model;
    int64_t input = 0;   // as written: includes cache reads for the Google APIs
    int64_t output = 0;  // includes reasoning
    int64_t cacheRead = 0;
    int64_t cacheWrite = 0;
    std::optional<int64_t> totalTokens;
    std::optional<int64_t> reasoningTokens;  // omp: a part of output, never added to it
    std::optional<double> costUSD;           // the agent's own figure
};

struct PiLine {
    LineSource::LineKind kind = LineSource::LineKind::noUsage;
    // From a "session" header.
    std::optional<std::string> sessionID;
    std::optional<std::string> cwd;
    // A usage record with at least one non-zero count (failed requests write zeros).
    std::optional<PiUsage> usage;
};

// Parses lines; keeps its parser and scratch buffer between lines.
class LineReader {
  public:
    LineReader();
    ~LineReader();
    LineReader(const LineReader&) = delete;
    LineReader& operator=(const LineReader&) = delete;

    // `paddingAfter`: readable bytes after the line's end (the line readers guarantee
    // JSONL::kLinePadding); with fewer the line is copied first.
    PiLine read(std::string_view line, std::size_t paddingAfter);

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// True for the APIs whose `input` already includes the cache reads.
bool inputIncludesCacheRead(std::string_view api);

// What a file (or store) tells about its session, carried between scans in parserContext.
struct SessionState {
    std::string sessionID;
    std::string cwd;

    static SessionState decode(const std::string& parserContext);
    std::string encode() const;
};

// The event identity. Forks and branches copy entries into new files keeping the entry id and
// the message time, and OpenClaw keeps the same entries in its database after migrating, so
// the session is left out of the key: (entry id, message time, model) alone names the request.
// An entry without an id falls back to a key scoped by session and `position`.
std::string eventID(AgentSource source, const PiUsage& usage, std::string_view sessionID,
                    int64_t position);

// The draft of one usage record; `fallbackTime` (inferred) when the entry has no time.
EventDraft draft(AgentSource source, const PiUsage& usage, const SessionState& session,
                 int64_t position, double fallbackTime);

// Reads one line into `session` (a header) or an event (a usage record) sent to `sink`.
LineSource::LineKind consume(LineReader& reader, std::string_view line, std::size_t paddingAfter,
                             int64_t position, AgentSource source, SessionState& session,
                             const SourceEventSink& sink, double fallbackTime);

// An append-only transcript (`context.file`) read on from `checkpoint` as `source`'s; the
// session state (and so the session id and cwd named in the header) survives in the
// checkpoint's parser context. The session id defaults to the file's id (the part after "_" in
// "<ts>_<id>.jsonl").
std::expected<IngestResult, FileError> ingestLines(
    AgentSource source, int64_t parserVersion, const SourceReadContext& context,
    const std::optional<SourceCheckpoint>& checkpoint);

// The same, from the context's own checkpoint.
std::expected<IngestResult, FileError> ingestLines(AgentSource source, int64_t parserVersion,
                                                   const SourceReadContext& context);

// The session id a file name implies: "<ts>_<id>.jsonl" → "<id>", else the name without
// ".jsonl" (and without the archive suffixes ".reset.<ts>" / ".zst").
std::string sessionIDFromFileName(const std::filesystem::path& file);

// The file's modification time in seconds; now when it cannot be examined.
double modificationTime(const std::filesystem::path& file);

// Every "*.jsonl" below `root` with a "sessions" folder between `root` and the file.
std::vector<std::filesystem::path> discoverSessions(const std::filesystem::path& root,
                                                    std::vector<FileError>* errors = nullptr);

}  // namespace kestrel::PiSessionFormat
