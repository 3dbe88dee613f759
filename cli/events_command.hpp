#pragma once
// `kestrel events`: the ledger's events one page at a time, newest first by default, with the
// report filters applied.
//
// Pages are keyset pages: a page ends with a cursor and the next page starts after it, so a scan
// that adds events between two calls neither repeats nor skips an event of the listing. The
// cursor a person copies is "<occurredAt>/<event id>": the event's time in seconds since the Unix
// epoch with exactly 6 decimals, a slash, then the ledger event id, e.g.
// "1767323045.000000/le:claude:msg_01". It names the last event shown; --after starts the next
// page after it.

#include <optional>
#include <string>
#include <string_view>

#include "cli/command_context.hpp"
#include "cli/report_context.hpp"
#include "core/ledger/ledger_query.hpp"

namespace kestrel::cli {

struct EventsOptions {
    int limit = 50;              // events per page, 1 to 1000
    std::string after;           // a cursor as printed by a previous page; empty: from the start
    std::string order = "desc";  // "desc" (newest first) or "asc"
};

// Prints one page of events (a table, or with `json` one object with "entries" and
// "nextCursor"). A bad --limit, --order or --after is exit 2 before the ledger is opened.
int runEvents(CommandContext& ctx, const ReportOptions& report, const EventsOptions& options,
              bool json);

// "1767323045.000000/le:claude:msg_01".
std::string formatCursor(const LedgerCursor& cursor);

// The cursor a person typed; absent when it is not a decimal time, a slash and a non-empty id.
std::optional<LedgerCursor> parseCursor(std::string_view text);

}  // namespace kestrel::cli
