#include "cli/fx_command.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <expected>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "cli/cli.hpp"
#include "cli/session_access.hpp"
#include "core/app/fx_settings.hpp"
#include "core/model/calendar.hpp"
#include "core/model/timestamp.hpp"
#include "core/pricing/fx_rate.hpp"

namespace kestrel::cli {
namespace {

nlohmann::ordered_json rateJSON(const AppSettings& s) {
    auto optionalText = [](const std::optional<std::string>& value) {
        return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json(nullptr);
    };
    return {{"cnyPerUsdE4", s.cnyPerUsdE4},
            {"cnyPerUsd", fxRateText(s.cnyPerUsdE4)},
            {"fxVersion", s.fxVersion},
            {"fxDate", optionalText(s.fxDate)},
            {"fxProvider", optionalText(s.fxProvider)}};
}

std::string_view errorText(FxError error, AppLanguage language) {
    return language == AppLanguage::zhHans ? description(error) : englishDescription(error);
}

// Stores the new rate with its date and provider, then reports it.
int storeRate(CommandContext& ctx, TextSession& session, int64_t e4,
              std::optional<std::string> date, std::optional<std::string> provider, bool json) {
    FxRateChange change;
    try {
        change = storeFxRate(*session.app, e4, std::move(date), std::move(provider));
    } catch (const std::exception& e) {
        ctx.err << "kestrel: cannot save the settings: " << e.what() << '\n';
        return kExitFailure;
    }
    const AppSettings& s = change.settings;
    if (json) {
        auto doc = rateJSON(s);
        doc["changed"] = change.changed;
        ctx.out << doc.dump(2) << '\n';
        return kExitOK;
    }
    const std::string version = std::to_string(s.fxVersion);
    if (change.changed) {
        ctx.out << session.text("fx.changed", {{"old", fxRateText(change.previousE4)},
                                               {"new", fxRateText(s.cnyPerUsdE4)},
                                               {"version", version}})
                << '\n';
    } else {
        ctx.out << session.text("fx.unchanged",
                                {{"rate", fxRateText(s.cnyPerUsdE4)}, {"version", version}})
                << '\n';
    }
    return kExitOK;
}

}  // namespace

int runFxShow(CommandContext& ctx, const std::string& language, bool json) {
    auto session = openTextSession(ctx, language);
    if (!session) {
        return session.error();
    }
    const AppSettings s = session->app->settings();
    if (json) {
        ctx.out << rateJSON(s).dump(2) << '\n';
        return kExitOK;
    }
    const std::string rate = fxRateText(s.cnyPerUsdE4);
    ctx.out << session->text("fx.heading") << '\n';
    ctx.out << "  " << session->text("fx.stored", {{"rate", rate}}) << '\n';
    if (s.fxDate) {
        ctx.out << "  " << session->text("fx.date", {{"date", *s.fxDate}}) << '\n';
    }
    if (s.fxProvider) {
        ctx.out << "  " << session->text("fx.provider", {{"provider", *s.fxProvider}}) << '\n';
    }
    ctx.out << "  " << session->text("fx.version", {{"version", std::to_string(s.fxVersion)}})
            << '\n';
    ctx.out << session->text("fx.rateHint", {{"rate", rate}}) << '\n';
    return kExitOK;
}

int runFxSet(CommandContext& ctx, const std::string& rate, const std::string& language, bool json) {
    auto session = openTextSession(ctx, language);
    if (!session) {
        return session.error();
    }
    const auto e4 = parseFxInput(rate);
    if (!e4) {
        ctx.err << "kestrel: "
                << (e4.error().kind == FxInputError::Kind::outOfRange
                        ? std::string(errorText(FxError::outOfRange, session->text.language))
                        : session->text("fx.notANumber", {{"text", rate}}))
                << '\n';
        return kExitUsage;
    }
    // A typed rate has no provider, and it is as of the day it was typed.
    const std::string today = Calendar::current().dayKey(epochNow());
    return storeRate(ctx, *session, *e4, today, std::nullopt, json);
}

int runFxFetch(CommandContext& ctx, const std::string& url, const std::string& language,
               bool json) {
    auto session = openTextSession(ctx, language);
    if (!session) {
        return session.error();
    }
    const auto quote = FxRate::fetchUSDToCNY(url.empty() ? FxRate::kDefaultURL : url);
    if (!quote) {
        ctx.err << "kestrel: " << errorText(quote.error(), session->text.language) << '\n';
        return kExitPartial;
    }
    // A quote without a date is stored without one rather than with an empty text.
    std::optional<std::string> date;
    if (!quote->date.empty()) {
        date = quote->date;
    }
    const int status = storeRate(ctx, *session, quote->e4(), date, quote->source, json);
    if (status == kExitOK && !json) {
        if (date) {
            ctx.out << "  " << session->text("fx.date", {{"date", *date}}) << '\n';
        }
        ctx.out << "  " << session->text("fx.provider", {{"provider", quote->source}}) << '\n';
    }
    return status;
}

}  // namespace kestrel::cli
