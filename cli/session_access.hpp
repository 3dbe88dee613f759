#pragma once
// Opening Kestrel for one command, with the failure said in one line, and the pieces of output
// several commands share: the scan's progress bar, source lists, the ledger's headline.

#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "cli/command_context.hpp"
#include "cli/texts.hpp"
#include "core/app/app_session.hpp"
#include "core/app/usage_scan.hpp"

namespace kestrel::cli {

// Where this command reads and writes.
AppPaths pathsOf(const CommandContext& ctx);

// The session over ctx's home and ledger, or null after printing why it could not be opened.
std::unique_ptr<AppSession> openSession(CommandContext& ctx);

// A scan drawing a progress bar (files done / total, the source in hand) on a terminal's error
// stream; `onSourceDone` hears each source's commit.
std::expected<ScanOutcome, ScanFailure> scanWithProgress(CommandContext& ctx, AppSession& session,
                                                         const ScanRequest& request,
                                                         const Ingestor::SourceDone& onSourceDone = {},
                                                         std::stop_token stop = {});

// The sources named by --source (see chooseSources); prints the reason and returns absent for a
// name that is unknown or an agent that cannot be read.
std::optional<std::optional<std::set<AgentSource>>> parseSources(
    CommandContext& ctx, const std::vector<std::string>& names);

// The language named by --lang: absent when none was given; prints the reason and returns absent
// (outer) for a name that is not en or zh-Hans.
std::optional<std::optional<AppLanguage>> parseLanguageOption(CommandContext& ctx,
                                                              const std::string& name);

// The settings' language, for commands without --lang.
Texts textsOf(const AppSession& session);

// An open session and the texts of the language a command prints in.
struct TextSession {
    std::unique_ptr<AppSession> app;
    Texts text;
};

// Checks --lang `language` (before the ledger is opened, so a typo costs nothing), opens the
// session and resolves the language against its settings. On failure, after one line naming the
// cause, the exit status: usage for an unknown language, failure for a ledger that cannot open.
std::expected<TextSession, int> openTextSession(CommandContext& ctx, const std::string& language);

// "claude, codex, ...": the sources' raw values, for messages that list what is accepted.
std::string sourceNames(std::span<const AgentSource> sources);

// Today's cost so far over every source, from the ledger ("$0.42").
std::string todaysCost(std::optional<int64_t> usdMicros);

// "Ledger: today $0.42 · last 7 days $3.10 · all time $120.00 (12,345 events)".
std::string ledgerHeadline(UsageStore& store);

}  // namespace kestrel::cli
