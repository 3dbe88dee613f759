#pragma once
// What a reader returns for one file or store.

#include <cstdint>
#include <optional>
#include <vector>

#include "core/model/source_checkpoint.hpp"
#include "core/model/usage_event.hpp"
#include "core/model/account_snapshot.hpp"

namespace kestrel {

// What a read went through, for the scan summary and coverage reporting.
struct ReadStats {
    int64_t bytes = 0;      // bytes consumed (complete lines)
    int64_t lines = 0;      // complete lines read, blank ones included
    int64_t malformed = 0;  // not JSON, not an object, or a usage record that cannot be read
    // Records that carry no usage. Lines a cheap pre-filter rules out are counted here unparsed,
    // so a broken line of another kind may land here rather than under malformed.
    int64_t withoutUsage = 0;

    bool operator==(const ReadStats&) const = default;
};

struct IngestResult {
    std::vector<UsageEvent> events;        // in file order
    SourceCheckpoint checkpoint;           // where the next read starts
    std::optional<AccountSnapshot> quota;  // a quota reading found in the same file
    bool formatChanged = false;            // the file no longer has the shape the reader expects
    ReadStats stats;
};

}  // namespace kestrel
