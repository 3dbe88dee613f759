#include "core/sources/sqlite_cumulative.hpp"

#include <nlohmann/json.hpp>

#include "core/model/token_semantics.hpp"

namespace kestrel {
namespace {

bool isZero(const TokenSnapshot& s) {
    return s.input == 0 && s.cachedInput == 0 && s.cacheCreate == 0 && s.output == 0 &&
           s.reasoning == 0 && s.providerTotal == 0;
}

}  // namespace

SQLiteCumulativeContext SQLiteCumulativeContext::decode(const std::string& parserContext) {
    SQLiteCumulativeContext context;
    if (parserContext.empty()) {
        return context;
    }
    const auto doc = nlohmann::json::parse(parserContext, nullptr, false);
    if (!doc.is_object() || !doc.contains("entries") || !doc["entries"].is_object()) {
        return context;
    }
    try {
        for (const auto& [key, value] : doc["entries"].items()) {
            SQLiteCumulativeEntry entry;
            entry.snapshot = value.at("snapshot").get<TokenSnapshot>();
            entry.sequence = value.at("sequence").get<int64_t>();
            context.entries.emplace(key, entry);
        }
    } catch (const nlohmann::json::exception&) {
        return {};
    }
    return context;
}

std::string SQLiteCumulativeContext::encode() const {
    nlohmann::json entriesJSON = nlohmann::json::object();
    for (const auto& [key, entry] : entries) {
        entriesJSON[key] = {{"snapshot", entry.snapshot}, {"sequence", entry.sequence}};
    }
    return nlohmann::json{{"entries", std::move(entriesJSON)}}.dump();
}

std::optional<TokenSnapshot> SQLiteCumulativeContext::advance(const std::string& key,
                                                              const TokenSnapshot& totals,
                                                              int64_t sequence) {
    auto it = entries.find(key);
    if (it == entries.end()) {
        entries.emplace(key, SQLiteCumulativeEntry{totals, sequence});
        return isZero(totals) ? std::nullopt : std::optional<TokenSnapshot>(totals);
    }
    const auto added = TokenSemantics::delta(it->second.snapshot, totals);
    it->second = {totals, sequence};
    if (!added || isZero(*added)) {
        return std::nullopt;
    }
    return added;
}

}  // namespace kestrel
