#include "cli/fx_command.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <expected>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "cli/cli.hpp"
#include "cli/store_access.hpp"
#include "core/ledger/settings_store.hpp"
#include "core/model/calendar.hpp"
#include "core/model/timestamp.hpp"
#include "core/presentation/messages.hpp"
#include "core/pricing/decimal.hpp"
#include "core/pricing/fx_rate.hpp"

namespace kestrel::cli {
namespace {

// The open ledger, its settings and the language the texts are in.
struct FxSession {
    std::unique_ptr<UsageStore> store;
    AppSettings settings;
    AppLanguage language = AppLanguage::en;  // resolved, never `system`

    std::string text(std::string_view key, std::initializer_list<MessageArg> args = {}) const {
        return Messages::bundled().text(key, language, args);
    }
};

// The language is checked before the ledger is opened, so a typo costs nothing.
std::expected<FxSession, int> openSession(CommandContext& ctx, const std::string& language) {
    std::optional<AppLanguage> asked;
    if (!language.empty()) {
        asked = fromRawValue<AppLanguage>(language);
        if (!asked || *asked == AppLanguage::system) {
            ctx.err << "kestrel: unknown language \"" << language << "\" (known: en, zh-Hans)\n";
            return std::unexpected(kExitUsage);
        }
    }
    FxSession session;
    session.store = openStore(ctx);
    if (!session.store) {
        return std::unexpected(kExitFailure);
    }
    try {
        session.settings = SettingsStore::load(*session.store).settings;
    } catch (const std::exception& e) {
        ctx.err << "kestrel: cannot read the settings: " << e.what() << '\n';
        return std::unexpected(kExitFailure);
    }
    session.language =
        effectiveLanguage(asked.value_or(session.settings.language), systemLocaleName());
    return session;
}

// "7.2000": all four decimals cnyPerUsdE4 holds, so a stored rate reads back exactly.
std::string rateText(int64_t e4) {
    // The settings keep the rate positive; the sign is handled only so no value prints wrong.
    const uint64_t magnitude = e4 < 0 ? 0 - static_cast<uint64_t>(e4) : static_cast<uint64_t>(e4);
    return fmt::format("{}{}.{:04}", e4 < 0 ? "-" : "", magnitude / 10000, magnitude % 10000);
}

nlohmann::ordered_json rateJSON(const AppSettings& s) {
    auto optionalText = [](const std::optional<std::string>& value) {
        return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json(nullptr);
    };
    return {{"cnyPerUsdE4", s.cnyPerUsdE4},
            {"cnyPerUsd", rateText(s.cnyPerUsdE4)},
            {"fxVersion", s.fxVersion},
            {"fxDate", optionalText(s.fxDate)},
            {"fxProvider", optionalText(s.fxProvider)}};
}

std::string_view errorText(FxError error, AppLanguage language) {
    return language == AppLanguage::zhHans ? description(error) : englishDescription(error);
}

// Whether the typed text is a decimal number at all, read as parseInput reads it. Digits are
// zeroed first so that a number too large to hold still counts as one and is then told it is
// out of range rather than not a number.
bool isNumberText(std::string_view typed) {
    constexpr std::string_view blanks = " \t\n\r\v\f";
    const auto first = typed.find_first_not_of(blanks);
    if (first == std::string_view::npos) {
        return false;
    }
    std::string text(typed.substr(first, typed.find_last_not_of(blanks) - first + 1));
    std::replace(text.begin(), text.end(), ',', '.');
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c >= '1' && c <= '9'; }, '0');
    return parseDecimalScaled(text, 0).has_value();
}

// Writes the new rate with its date and provider, then reports it. The rate's version moves
// only when the rate does, since stored events carry the version they were priced with.
int storeRate(CommandContext& ctx, FxSession& session, int64_t e4, std::optional<std::string> date,
              std::optional<std::string> provider, bool json) {
    AppSettings& s = session.settings;
    const int64_t oldE4 = s.cnyPerUsdE4;
    const auto next = FxRate::applied({s.cnyPerUsdE4, s.fxVersion}, e4);
    const bool changed = next.fxVersion != s.fxVersion;
    s.cnyPerUsdE4 = next.cnyPerUsdE4;
    s.fxVersion = next.fxVersion;
    s.fxDate = std::move(date);
    s.fxProvider = std::move(provider);
    try {
        SettingsStore::save(*session.store, s);
    } catch (const std::exception& e) {
        ctx.err << "kestrel: cannot save the settings: " << e.what() << '\n';
        return kExitFailure;
    }

    if (json) {
        auto doc = rateJSON(s);
        doc["changed"] = changed;
        ctx.out << doc.dump(2) << '\n';
        return kExitOK;
    }
    const std::string version = std::to_string(s.fxVersion);
    if (changed) {
        ctx.out << session.text("fx.changed", {{"old", rateText(oldE4)},
                                               {"new", rateText(s.cnyPerUsdE4)},
                                               {"version", version}})
                << '\n';
    } else {
        ctx.out << session.text("fx.unchanged",
                                {{"rate", rateText(s.cnyPerUsdE4)}, {"version", version}})
                << '\n';
    }
    return kExitOK;
}

}  // namespace

int runFxShow(CommandContext& ctx, const std::string& language, bool json) {
    auto session = openSession(ctx, language);
    if (!session) {
        return session.error();
    }
    const AppSettings& s = session->settings;
    if (json) {
        ctx.out << rateJSON(s).dump(2) << '\n';
        return kExitOK;
    }
    const std::string rate = rateText(s.cnyPerUsdE4);
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
    auto session = openSession(ctx, language);
    if (!session) {
        return session.error();
    }
    const auto e4 = FxRate::parseInput(rate);
    if (!e4) {
        ctx.err << "kestrel: "
                << (isNumberText(rate)
                        ? std::string(errorText(FxError::outOfRange, session->language))
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
    auto session = openSession(ctx, language);
    if (!session) {
        return session.error();
    }
    const auto quote = FxRate::fetchUSDToCNY(url.empty() ? FxRate::kDefaultURL : url);
    if (!quote) {
        ctx.err << "kestrel: " << errorText(quote.error(), session->language) << '\n';
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
