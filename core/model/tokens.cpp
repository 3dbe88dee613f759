#include "core/model/tokens.hpp"

#include <nlohmann/json.hpp>

#include "core/model/checked_math.hpp"

namespace kestrel {

int64_t ExclusiveTokens::billedTokens() const {
    int64_t sum = checkedAdd(inputUncached, cacheRead, "billedTokens");
    sum = checkedAdd(sum, cacheWrite, "billedTokens");
    sum = checkedAdd(sum, outputVisible, "billedTokens");
    return checkedAdd(sum, reasoning, "billedTokens");
}

std::vector<std::pair<std::string_view, int64_t>> ExclusiveTokens::billedBuckets() const {
    std::vector<std::pair<std::string_view, int64_t>> out;
    const int64_t cache = checkedAdd(cacheRead, cacheWrite, "billedBuckets cache");
    for (const auto& [id, value] : {std::pair<std::string_view, int64_t>{"input", inputUncached},
                                    {"output", outputVisible},
                                    {"reasoning", reasoning},
                                    {"cache", cache}}) {
        if (value > 0) {
            out.emplace_back(id, value);
        }
    }
    return out;
}

ExclusiveTokens operator+(const ExclusiveTokens& a, const ExclusiveTokens& b) {
    return {
        checkedAdd(a.inputUncached, b.inputUncached, "ExclusiveTokens.inputUncached +"),
        checkedAdd(a.cacheRead, b.cacheRead, "ExclusiveTokens.cacheRead +"),
        checkedAdd(a.cacheWrite, b.cacheWrite, "ExclusiveTokens.cacheWrite +"),
        checkedAdd(a.outputVisible, b.outputVisible, "ExclusiveTokens.outputVisible +"),
        checkedAdd(a.reasoning, b.reasoning, "ExclusiveTokens.reasoning +"),
    };
}

ExclusiveTokens& operator+=(ExclusiveTokens& a, const ExclusiveTokens& b) {
    a = a + b;
    return a;
}

namespace {

template <class J>
void fill(J& j, const TokenSnapshot& t) {
    j = J{{"input", t.input},   {"cachedInput", t.cachedInput}, {"cacheCreate", t.cacheCreate},
          {"output", t.output}, {"reasoning", t.reasoning},     {"providerTotal", t.providerTotal}};
}

template <class J>
void fill(J& j, const ExclusiveTokens& t) {
    j = J{{"inputUncached", t.inputUncached},
          {"cacheRead", t.cacheRead},
          {"cacheWrite", t.cacheWrite},
          {"outputVisible", t.outputVisible},
          {"reasoning", t.reasoning}};
}

}  // namespace

void to_json(nlohmann::json& j, const TokenSnapshot& t) {
    fill(j, t);
}
void to_json(nlohmann::ordered_json& j, const TokenSnapshot& t) {
    fill(j, t);
}
void to_json(nlohmann::json& j, const ExclusiveTokens& t) {
    fill(j, t);
}
void to_json(nlohmann::ordered_json& j, const ExclusiveTokens& t) {
    fill(j, t);
}

void from_json(const nlohmann::json& j, TokenSnapshot& t) {
    t.input = j.value("input", int64_t{0});
    t.cachedInput = j.value("cachedInput", int64_t{0});
    t.cacheCreate = j.value("cacheCreate", int64_t{0});
    t.output = j.value("output", int64_t{0});
    t.reasoning = j.value("reasoning", int64_t{0});
    t.providerTotal = j.value("providerTotal", int64_t{0});
}

void from_json(const nlohmann::json& j, ExclusiveTokens& t) {
    t.inputUncached = j.value("inputUncached", int64_t{0});
    t.cacheRead = j.value("cacheRead", int64_t{0});
    t.cacheWrite = j.value("cacheWrite", int64_t{0});
    t.outputVisible = j.value("outputVisible", int64_t{0});
    t.reasoning = j.value("reasoning", int64_t{0});
}

}  // namespace kestrel
