#pragma once
// Running totals per session or thread, kept between scans so that a store holding only totals
// yields the usage added since the last scan. Kept in the checkpoint's parser context as JSON
// {"entries": {key: {"snapshot": {...}, "sequence": n}}}.

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "core/model/tokens.hpp"

namespace kestrel {

struct SQLiteCumulativeEntry {
    TokenSnapshot snapshot;
    int64_t sequence = 0;

    bool operator==(const SQLiteCumulativeEntry&) const = default;
};

struct SQLiteCumulativeContext {
    std::map<std::string, SQLiteCumulativeEntry> entries;

    // An empty context for text that is empty or not this JSON (a checkpoint of another
    // parser version): the store is then read as if for the first time.
    static SQLiteCumulativeContext decode(const std::string& parserContext);
    std::string encode() const;

    // Records `totals` for `key` at `sequence` and returns the usage added since the entry's last
    // totals: absent when nothing was added or when the totals went backwards (the agent reset
    // them; the entry restarts from `totals` and no negative usage is produced). A key seen for
    // the first time yields its whole totals.
    std::optional<TokenSnapshot> advance(const std::string& key, const TokenSnapshot& totals,
                                         int64_t sequence);

    bool operator==(const SQLiteCumulativeContext&) const = default;
};

}  // namespace kestrel
