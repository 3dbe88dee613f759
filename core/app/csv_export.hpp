#pragma once
// Every ledger event a filter selects as one CSV row, oldest first, written to a file through a
// temporary file beside it that is renamed over it at the end: a failure leaves no partial file
// and the old file, if any, untouched.
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

#include <cstdint>
#include <cstdio>
#include <expected>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

#include "core/ledger/usage_store.hpp"
#include "core/model/calendar.hpp"
#include "core/model/currency.hpp"

namespace kestrel {

struct CsvFormat {
    ResolvedCurrency currency = ResolvedCurrency::usd;  // of the cost_display column
    int64_t cnyPerUsdE4 = 72000;
    Calendar calendar = Calendar::current();  // of the local_day column
};

struct ExportError {
    enum class Kind {
        notAFile,     // the path names no file ("", "dir/")
        cannotWrite,  // the file or its folder cannot be written
        cannotRead,   // the ledger could not be read
    };
    Kind kind = Kind::cannotWrite;
    std::string path;     // as given
    int errorNumber = 0;  // errno for cannotWrite
    std::string message;  // the ledger's error for cannotRead
};

class CsvExport {
  public:
    // Opens the temporary file beside `target`, so that a path that cannot be written fails
    // before any other work is done.
    static std::expected<CsvExport, ExportError> begin(const std::filesystem::path& target);

    CsvExport(CsvExport&& other) noexcept;
    CsvExport& operator=(CsvExport&&) = delete;
    CsvExport(const CsvExport&) = delete;
    ~CsvExport();  // removes the temporary file unless it was renamed into place

    // Writes the header and every event `query` selects, oldest first, a page at a time, then
    // renames the file over the target. Returns the rows written. `progress` hears (rows
    // written, rows in all) after each page.
    std::expected<int64_t, ExportError> write(
        UsageStore& store, const LedgerQuery& query, const CsvFormat& format,
        const std::function<void(int64_t written, int64_t total)>& progress = {});

  private:
    CsvExport(std::filesystem::path target, std::filesystem::path temp, std::FILE* file);
    bool put(std::string_view bytes);
    int commit();

    std::filesystem::path target_;
    std::filesystem::path temp_;
    std::FILE* file_ = nullptr;
    int failed_ = 0;  // errno of the first failed write
    bool renamed_ = false;
};

// `field` as one CSV field: quoted when it holds a comma, a double quote, CR or LF.
std::string csvField(std::string_view field);

// Micro-dollars as decimal dollars with 6 fraction digits ("-1.000001"), exactly.
std::string decimalUSD(int64_t micros);

}  // namespace kestrel
