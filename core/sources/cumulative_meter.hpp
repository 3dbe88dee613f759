#pragma once
// What the readers of running-total stores share: a store keeps only each session's totals, so
// the usage of a scan is what the totals grew by since the last one. The last totals per key
// live in the checkpoint (SQLiteCumulativeContext); each growth becomes one sessionAggregate
// event whose identity is derived from the totals it reached, so reading the same store from
// the same checkpoint again yields the same ids and the ledger keeps one copy.

#include <cstdint>
#include <filesystem>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "core/model/agent_source.hpp"
#include "core/model/source_checkpoint.hpp"
#include "core/model/tokens.hpp"
#include "core/sources/readonly_sqlite.hpp"
#include "core/sources/source_readers.hpp"
#include "core/sources/sqlite_cumulative.hpp"

namespace kestrel::CumulativeMeter {

// One session's (or thread's, or session-and-model's) running totals as the store holds them.
struct Reading {
    std::string key;  // the context entry: unique within the store
    // Tells apart counters of one session and model that grow side by side (another billing
    // route, a side task); part of the event identity when set.
    std::string scope;
    int64_t sequence = 0;
    TokenSnapshot totals;
    bool hasProviderTotal = false;  // totals.providerTotal is the agent's own figure
    std::string sessionID;
    std::string model;
    std::string provider;  // empty: derived from the model
    std::string cwd;
    std::string projectName;
    std::optional<double> updatedAt;  // the record's own update time, when it has one
    std::optional<std::string> rawExtras;
};

// Counts a store may hold: none negative, none past JsonFields::kMaxTokenCount.
bool plausible(const TokenSnapshot& totals);

// A token count in a database cell: absent for NULL (the counter was never set), false in
// `ok` for text that is not a whole number or a count out of range.
std::optional<int64_t> cellCount(const SQLiteCell& cell, bool& ok);

// The same for a JSON member: absent when missing or null, false in `ok` for other types.
std::optional<int64_t> jsonCount(const nlohmann::json& object, const char* key, bool& ok);

// A key column's text, or its integer written out; empty for anything else.
std::string cellText(const SQLiteCell& cell);

// A string member, empty when missing or not a string.
std::string jsonText(const nlohmann::json& object, const char* key);

// The newest modification time of `store` and its "-wal" file: when the agent last wrote it.
double storeTime(const std::filesystem::path& store);

// The record part of an event id: the totals the growth reached.
std::string recordID(const TokenSnapshot& totals);

// Advances `state` by `reading` and sends the growth, if any, as one event. Time is the reading's
// own update time (trusted) or `fallbackTime` (inferred). Returns whether an event was sent.
bool meter(AgentSource source, SQLiteCumulativeContext& state, const Reading& reading,
           double fallbackTime, const SourceEventSink& sink);

// The checkpoint of a store read whole, carrying `state`.
SourceCheckpoint checkpoint(AgentSource source, int64_t parserVersion,
                            const std::filesystem::path& store,
                            const SQLiteCumulativeContext& state);

}  // namespace kestrel::CumulativeMeter
