#include "core/model/token_semantics.hpp"

#include <algorithm>

#include "core/model/checked_math.hpp"

namespace kestrel::TokenSemantics {

TokenFamily family(AgentSource source) {
    switch (source) {
        case AgentSource::cursor:
        case AgentSource::kimi:
        case AgentSource::traeWorkCN:
            return TokenFamily::additive;
        case AgentSource::codex:
        case AgentSource::workbuddy:
        case AgentSource::grok:
            return TokenFamily::subset;
        default:
            return TokenFamily::independent;
    }
}

namespace {

Mapped mapAdditive(int64_t input, int64_t cached, int64_t cacheWrite, int64_t output,
                   int64_t reasoning, int64_t total) {
    const bool consistent = input >= 0 && cached >= 0 && cacheWrite >= 0 && output >= 0 &&
                            reasoning >= 0 && output >= reasoning;
    if (!consistent) {
        return {ExclusiveTokens::zero(), false, input, output, total};
    }
    Mapped m;
    m.exclusive = {input, cached, cacheWrite, checkedSub(output, reasoning, "additive output"),
                   reasoning};
    m.trusted = true;
    m.providerIn = checkedAdd(checkedAdd(input, cached, "additive input total"), cacheWrite,
                              "additive input total");
    m.providerOut = output;
    m.providerTotal = checkedAdd(m.providerIn, output, "additive provider total");
    return m;
}

Mapped mapSubset(AgentSource source, int64_t input, int64_t cached, int64_t cacheWrite,
                 int64_t output, int64_t reasoning, int64_t total) {
    // Codex does not count cache writes inside input; the other subset agents do.
    const int64_t included = source == AgentSource::codex
                                 ? cached
                                 : checkedAdd(cached, cacheWrite, "subset included cache");
    const bool consistent = cached >= 0 && cacheWrite >= 0 && reasoning >= 0 && input >= included &&
                            output >= reasoning;
    Mapped m{ExclusiveTokens::zero(), false, input, output, total};
    if (consistent) {
        m.exclusive = {std::max<int64_t>(checkedSub(input, included, "subset input"), 0), cached,
                       cacheWrite, checkedSub(output, reasoning, "subset output"), reasoning};
        m.trusted = true;
    }
    return m;
}

Mapped mapIndependent(int64_t input, int64_t cached, int64_t cacheWrite, int64_t output,
                      int64_t reasoning, int64_t total) {
    auto floor0 = [](int64_t v) { return std::max<int64_t>(v, 0); };
    return {{floor0(input), floor0(cached), floor0(cacheWrite), floor0(output), floor0(reasoning)},
            true,
            input,
            output,
            total};
}

}  // namespace

Mapped map(AgentSource source, int64_t input, int64_t cached, int64_t cacheWrite, int64_t output,
           int64_t reasoning, std::optional<int64_t> providerTotal) {
    const int64_t total =
        providerTotal ? *providerTotal : checkedAdd(input, output, "provider total");
    switch (family(source)) {
        case TokenFamily::additive:
            return mapAdditive(input, cached, cacheWrite, output, reasoning, total);
        case TokenFamily::subset:
            return mapSubset(source, input, cached, cacheWrite, output, reasoning, total);
        case TokenFamily::independent:
            break;
    }
    return mapIndependent(input, cached, cacheWrite, output, reasoning, total);
}

Mapped map(AgentSource source, const TokenSnapshot& raw, bool hasProviderTotal) {
    return map(source, raw.input, raw.cachedInput, raw.cacheCreate, raw.output, raw.reasoning,
               hasProviderTotal ? std::optional<int64_t>(raw.providerTotal) : std::nullopt);
}

std::optional<TokenSnapshot> delta(const TokenSnapshot& previous, const TokenSnapshot& current) {
    if (current.input < previous.input || current.output < previous.output ||
        current.providerTotal < previous.providerTotal) {
        return std::nullopt;
    }
    auto clamped = [](int64_t now, int64_t before, std::string_view what) {
        return std::max<int64_t>(checkedSub(now, before, what), 0);
    };
    TokenSnapshot d;
    d.input = checkedSub(current.input, previous.input, "delta input");
    d.cachedInput = clamped(current.cachedInput, previous.cachedInput, "delta cachedInput");
    d.cacheCreate = clamped(current.cacheCreate, previous.cacheCreate, "delta cacheCreate");
    d.output = checkedSub(current.output, previous.output, "delta output");
    d.reasoning = clamped(current.reasoning, previous.reasoning, "delta reasoning");
    d.providerTotal = checkedSub(current.providerTotal, previous.providerTotal, "delta total");
    return d;
}

int64_t promptTokens(const ExclusiveTokens& e) {
    return checkedAdd(checkedAdd(e.inputUncached, e.cacheRead, "promptTokens"), e.cacheWrite,
                      "promptTokens");
}

}  // namespace kestrel::TokenSemantics
