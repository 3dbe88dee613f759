#pragma once
// What every reading command shares: the options that choose the ledger's rows (dates, source,
// model, project, search), the language and currency of the output, and the incremental scan
// that runs first unless --no-scan says otherwise.

#include <expected>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli/command_context.hpp"
#include "core/app/app_session.hpp"
#include "core/app/display_choices.hpp"
#include "core/ledger/ledger_query.hpp"
#include "core/model/calendar.hpp"

namespace CLI {
class App;
}

namespace kestrel::cli {

struct ReportOptions {
    bool noScan = false;
    std::string currency;  // "usd" or "cny"; empty: the settings' choice
    std::string language;  // "en" or "zh-Hans"; empty: the settings' choice
    // Filters (reports only).
    std::string since;  // YYYY-MM-DD, local day, inclusive
    std::string until;  // YYYY-MM-DD, local day, inclusive
    std::vector<std::string> sources;
    std::string model;
    std::string project;
    std::string search;
    bool breakdown = false;
    std::string order;  // "asc" or "desc"; empty: the report's natural order
};

// Adds --no-scan, --currency and --lang to `command`; with `filters` also --since, --until,
// --source, --model, --project and --search.
void addReportOptions(CLI::App* command, ReportOptions& options, bool filters);

// An open session with the choices of one report applied.
struct Report {
    std::unique_ptr<AppSession> session;
    AppSettings settings;
    AppLanguage language = AppLanguage::en;  // resolved, never `system`
    ResolvedCurrency currency = ResolvedCurrency::usd;
    LedgerQuery query;  // the filters
    Calendar calendar = Calendar::current();
    ScanProgress scanned;
    bool scanFailed = false;  // some agent's files could not be read (exit 1)

    UsageStore& store() { return session->store(); }
    DisplayChoices display() const { return {language, currency, settings.cnyPerUsdE4}; }
    std::string text(std::string_view key) const;
    std::string text(std::string_view key, std::initializer_list<MessageArg> args) const;
    // An amount stored in micro-dollars, in the report's currency ("$1.20", "¥8.64").
    std::string money(int64_t usdMicros) const;
    // The same with a star when some events had no price.
    std::string money(const LedgerSummary& summary) const;
    std::string tokens(int64_t count) const;  // grouped digits
};

// Reads the options, opens the session and runs the incremental scan (unless --no-scan). On bad
// input or a ledger that cannot be opened it prints one line naming the cause and returns the
// exit status.
std::expected<Report, int> openReport(CommandContext& ctx, const ReportOptions& options);

// The totals as report rows carry them in JSON.
nlohmann::ordered_json summaryJSON(const LedgerSummary& summary);

// "No usage found below HOME ..." with where Kestrel looked; for an empty ledger.
void printNothingFound(const Report& report, CommandContext& ctx);

}  // namespace kestrel::cli
