#pragma once
// `kestrel export csv`: every ledger event the report filters select, one CSV row each, oldest
// first.
//
// The file is RFC 4180: records end with CRLF, and a field holding a comma, a double quote, a CR
// or a LF is put in double quotes with its quotes doubled. An absent value is an empty field.
// The first record is the header; the columns, in order:
//
//   time_utc               the event's time, ISO-8601 UTC with milliseconds
//                          ("2026-01-02T03:04:05.000Z")
//   local_day              the day it falls on in the local calendar, YYYY-MM-DD
//   source                 the agent's source name ("claude", "codex", ...)
//   provider               the model's provider ("anthropic", "openai", ...)
//   model                  the model name as the agent wrote it
//   project                the project's display name (empty when not stored)
//   session_key            the agent's session (empty when not stored)
//   input_uncached         input tokens read neither from nor into the cache
//   cache_read             input tokens read from the cache
//   cache_write            input tokens written to the cache
//   output_visible         output tokens, reasoning excluded
//   reasoning              reasoning tokens
//   provider_input_total   the provider's own input total
//   provider_output_total  the provider's own output total
//   provider_total         the provider's own total
//   cost_usd               US dollars with 6 decimals ("0.012345"); empty when unpriced
//   cost_display           the cost in the report currency: as cost_usd for USD, yuan with 2
//                          decimals at the stored rate for CNY; empty when unpriced
//   display_currency       USD or CNY
//   cost_source            priceTable, vendorReported or unknown
//   completeness           complete, partial or none: how much of the usage the cost covers
//   price_version          the price table version that priced it (empty when unpriced)

#include <string>
#include <string_view>

#include "cli/command_context.hpp"
#include "cli/report_context.hpp"

namespace kestrel::cli {

// Writes the events to `outPath` through a temporary file beside it, renamed over it at the end:
// a failure leaves no partial file. A path that cannot be written is exit 3, naming the path
// and the cause. Prints "Wrote N rows to PATH".
int runExportCSV(CommandContext& ctx, const ReportOptions& report, const std::string& outPath);

// `field` as one CSV field: quoted when it holds a comma, a double quote, CR or LF.
std::string csvField(std::string_view field);

// Micro-dollars as decimal dollars with 6 fraction digits ("-1.000001"), exactly.
std::string decimalUSD(int64_t micros);

}  // namespace kestrel::cli
