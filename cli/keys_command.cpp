#include "cli/keys_command.hpp"

#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <nlohmann/json.hpp>

#include "cli/cli.hpp"
#include "cli/session_access.hpp"
#include "cli/text_table.hpp"
#include "core/plans/key_providers.hpp"
#include "core/plans/key_store.hpp"
#include "core/plans/plan_salt.hpp"

namespace kestrel::cli {
namespace {

using ojson = nlohmann::ordered_json;

Texts textsFor(CommandContext& ctx) {
    // The language is the only thing read from the ledger here; without one, English.
    if (auto session = openSession(ctx)) {
        return textsOf(*session);
    }
    return Texts{};
}

std::string trimmed(std::string text) {
    const auto isSpace = [](unsigned char c) { return std::isspace(c) != 0; };
    text.erase(text.begin(), std::ranges::find_if_not(text, isSpace));
    while (!text.empty() && isSpace(static_cast<unsigned char>(text.back()))) {
        text.pop_back();
    }
    return text;
}

// One line typed with echo off; the terminal is restored whatever happens.
std::string readHidden(std::istream& in) {
    termios saved{};
    const bool terminal = ::tcgetattr(STDIN_FILENO, &saved) == 0;
    if (terminal) {
        termios quiet = saved;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
    }
    std::string line;
    std::getline(in, line);
    if (terminal) {
        ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved);
    }
    return line;
}

// The first non-empty line of a pipe: `pass show x | kestrel keys set deepseek`.
std::string readPiped(std::istream& in) {
    std::string line;
    while (std::getline(in, line)) {
        line = trimmed(line);
        if (!line.empty()) {
            return line;
        }
    }
    return {};
}

bool known(CommandContext& ctx, const Texts& t, const std::string& provider) {
    if (isKeyProvider(provider)) {
        return true;
    }
    ctx.err << "kestrel: "
            << t("keys.unknownProvider",
                 {{"provider", provider.substr(0, 40)}, {"accepted", keyProviderNames()}})
            << "\n";
    return false;
}

std::optional<std::string> salt(CommandContext& ctx) {
    auto loaded = PlanSalt::loadOrCreate(ctx.supportDir);
    if (!loaded) {
        ctx.err << "kestrel: " << loaded.error() << "\n";
        return std::nullopt;
    }
    return *loaded;
}

}  // namespace

int runKeysSet(CommandContext& ctx, const std::string& provider, std::istream& in,
               bool inIsTerminal, bool json) {
    const Texts t = textsFor(ctx);
    if (!known(ctx, t, provider)) {
        return kExitUsage;
    }
    std::string key;
    if (inIsTerminal) {
        ctx.err << t("keys.prompt", {{"provider", provider}}) << std::flush;
        key = trimmed(readHidden(in));
        ctx.err << "\n";
    } else {
        key = readPiped(in);
    }
    if (key.empty()) {
        ctx.err << "kestrel: " << t("keys.empty") << "\n";
        return kExitUsage;
    }
    const auto s = salt(ctx);
    if (!s) {
        return kExitFailure;
    }
    auto store = openKeyStore(ctx.supportDir, ctx.env);
    if (auto stored = store->set(provider, key); !stored) {
        ctx.err << "kestrel: " << stored.error().message << "\n";
        return kExitFailure;
    }
    const std::string fingerprint = credentialFingerprint(*s, key);
    if (json) {
        ctx.out << ojson{{"provider", provider},
                         {"fingerprint", fingerprint},
                         {"store", std::string(store->backend())}}
                       .dump(2)
                << "\n";
    } else {
        ctx.out << t("keys.set.done", {{"provider", provider},
                                       {"fingerprint", fingerprint},
                                       {"store", std::string(store->backend())}})
                << "\n";
    }
    return kExitOK;
}

int runKeysRemove(CommandContext& ctx, const std::string& provider, bool json) {
    const Texts t = textsFor(ctx);
    if (!known(ctx, t, provider)) {
        return kExitUsage;
    }
    auto store = openKeyStore(ctx.supportDir, ctx.env);
    const auto removed = store->remove(provider);
    if (!removed) {
        ctx.err << "kestrel: " << removed.error().message << "\n";
        return kExitFailure;
    }
    if (json) {
        ctx.out << ojson{{"provider", provider}, {"removed", *removed}}.dump(2) << "\n";
    } else {
        ctx.out << t(*removed ? "keys.rm.done" : "keys.rm.none", {{"provider", provider}}) << "\n";
    }
    return kExitOK;
}

int runKeysList(CommandContext& ctx, bool json) {
    const Texts t = textsFor(ctx);
    const auto s = salt(ctx);
    if (!s) {
        return kExitFailure;
    }
    auto store = openKeyStore(ctx.supportDir, ctx.env);
    const auto names = store->names();
    if (!names) {
        ctx.err << "kestrel: " << names.error().message << "\n";
        return kExitFailure;
    }
    int code = kExitOK;
    auto rows = ojson::array();
    TextTable table(
        {{t("keys.column.provider")}, {t("keys.column.fingerprint")}, {t("keys.column.store")}});
    for (const auto& name : *names) {
        const auto key = store->get(name);
        std::optional<std::string> fingerprint;
        if (!key) {
            ctx.err << "kestrel: " << key.error().message << "\n";
            code = kExitFailure;
        } else if (*key) {
            fingerprint = credentialFingerprint(*s, **key);
        }
        rows.push_back({{"provider", name},
                        {"fingerprint", fingerprint ? ojson(*fingerprint) : ojson(nullptr)},
                        {"store", std::string(store->backend())}});
        table.addRow(
            {name, fingerprint.value_or(t("keys.unreadable")), std::string(store->backend())});
    }
    if (json) {
        ctx.out << ojson{{"store", std::string(store->backend())}, {"keys", rows}}.dump(2) << "\n";
    } else if (table.empty()) {
        ctx.out << t("keys.list.none") << "\n";
    } else {
        table.render(ctx.out, ctx.colour);
    }
    return code;
}

}  // namespace kestrel::cli
