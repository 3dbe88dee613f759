#pragma once
// `kestrel plans`: the coding-plan candidates found in the agents' configs and the environment,
// awaiting review; `plans keep|reject ID…` records a choice (keeping validates the key with the
// provider first), `plans commit` saves the whole review or nothing, and `plans reset ACCOUNT`
// sends a confirmed account back to review.

#include <chrono>
#include <string>
#include <vector>

#include "cli/command_context.hpp"

namespace kestrel::cli {

struct PlansOptions {
    bool json = false;
    std::string language;  // "en", "zh-Hans"; empty: the settings'
    std::chrono::milliseconds timeout{15000};
};

int runPlans(CommandContext& ctx, const PlansOptions& options);
int runPlansChoose(CommandContext& ctx, const std::vector<std::string>& ids, bool keep,
                   const PlansOptions& options);
int runPlansCommit(CommandContext& ctx, const PlansOptions& options);
int runPlansReset(CommandContext& ctx, const std::string& account, const PlansOptions& options);

}  // namespace kestrel::cli
