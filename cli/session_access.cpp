#include "cli/session_access.hpp"

#include <fmt/format.h>

#include "cli/cli.hpp"
#include "cli/text_table.hpp"
#include "core/app/display_choices.hpp"
#include "core/app/usage_overview.hpp"
#include "core/model/app_language.hpp"
#include "core/model/enum_cases.hpp"
#include "core/model/timestamp.hpp"
#include "core/pricing/money_format.hpp"

namespace kestrel::cli {

AppPaths pathsOf(const CommandContext& ctx) {
    return AppPaths{ctx.home, ctx.supportDir, ctx.env ? ctx.env : emptyEnvironment()};
}

std::unique_ptr<AppSession> openSession(CommandContext& ctx) {
    auto session = AppSession::open(pathsOf(ctx));
    if (!session) {
        ctx.err << "kestrel: " << session.error().message << '\n';
        return nullptr;
    }
    return std::move(*session);
}

std::expected<ScanOutcome, ScanFailure> scanWithProgress(CommandContext& ctx, AppSession& session,
                                                         const ScanRequest& request,
                                                         const Ingestor::SourceDone& onSourceDone,
                                                         std::stop_token stop) {
    ProgressLine progress(ctx.err, ctx.errIsTerminal);
    ScanCallbacks callbacks;
    callbacks.onFileProgress = [&](int64_t done, int64_t total, std::optional<AgentSource> source) {
        progress.update(static_cast<std::size_t>(done), static_cast<std::size_t>(total),
                        source ? displayName(*source) : "records");
    };
    callbacks.onSourceDone = onSourceDone;
    return scanUsage(session, request, callbacks, std::move(stop));
}

std::optional<std::optional<AppLanguage>> parseLanguageOption(CommandContext& ctx,
                                                              const std::string& name) {
    if (name.empty()) {
        return std::optional<AppLanguage>{};
    }
    const auto language = fromRawValue<AppLanguage>(name);
    if (!language || *language == AppLanguage::system) {
        ctx.err << "kestrel: unknown language \"" << name << "\" (known: en, zh-Hans)\n";
        return std::nullopt;
    }
    return std::optional<AppLanguage>{language};
}

Texts textsOf(const AppSession& session) {
    return Texts{displayChoices(session.settings(), std::nullopt).language};
}

std::expected<TextSession, int> openTextSession(CommandContext& ctx, const std::string& language) {
    const auto parsed = parseLanguageOption(ctx, language);
    if (!parsed) {
        return std::unexpected(kExitUsage);
    }
    TextSession session;
    session.app = openSession(ctx);
    if (!session.app) {
        return std::unexpected(kExitFailure);
    }
    session.text = Texts{displayChoices(session.app->settings(), *parsed).language};
    return session;
}

std::optional<std::optional<std::set<AgentSource>>> parseSources(
    CommandContext& ctx, const std::vector<std::string>& names) {
    auto chosen = chooseSources(pathsOf(ctx), names);
    if (chosen) {
        return *chosen;
    }
    const auto& e = chosen.error();
    if (e.kind == SourceChoiceError::Kind::unknown) {
        ctx.err << "kestrel: unknown source \"" << e.name << "\" (known: " << sourceNames(e.accepted)
                << ")\n";
    } else {
        ctx.err << "kestrel: " << displayName(*e.source)
                << " keeps no usage records on this machine to scan (readable: "
                << sourceNames(e.accepted) << ")\n";
    }
    return std::nullopt;
}

std::string sourceNames(std::span<const AgentSource> sources) {
    std::string out;
    for (auto s : sources) {
        out += out.empty() ? "" : ", ";
        out += rawValue(s);
    }
    return out;
}

std::string todaysCost(std::optional<int64_t> usdMicros) {
    return formatUSD(usdMicros.value_or(0), "en_US");
}

std::string ledgerHeadline(UsageStore& store) {
    const auto h = ledgerHeadline(store, Calendar::current(), epochNow());
    const auto money = [](const LedgerSummary& s) {
        return formatUSD(s.knownCostUSDMicros.value_or(0), "en_US");
    };
    return fmt::format("Ledger: today {} · last 7 days {} · all time {} ({})", money(h.today),
                       money(h.last7Days), money(h.allTime),
                       counted(h.allTime.eventCount, "event", "events"));
}

}  // namespace kestrel::cli
