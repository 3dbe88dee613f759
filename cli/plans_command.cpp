#include "cli/plans_command.hpp"

#include <nlohmann/json.hpp>

#include "cli/cli.hpp"
#include "cli/session_access.hpp"
#include "cli/text_table.hpp"
#include "core/app/plan_service.hpp"
#include "core/model/timestamp.hpp"
#include "core/plans/key_store.hpp"

namespace kestrel::cli {
namespace {

using ojson = nlohmann::ordered_json;

struct PlansSession {
    std::unique_ptr<AppSession> app;
    std::unique_ptr<KeyStore> keys;
    Texts t;
    PlanServiceOptions options;
};

std::optional<PlansSession> openPlans(CommandContext& ctx, const PlansOptions& options) {
    auto opened = openTextSession(ctx, options.language);
    if (!opened) {
        return std::nullopt;
    }
    PlansSession s;
    s.app = std::move(opened->app);
    s.t = opened->text;
    s.keys = openKeyStore(ctx.supportDir, ctx.env);
    s.options.keys = s.keys.get();
    s.options.timeout = options.timeout;
    return s;
}

std::string stateText(const Texts& t, const std::string& state) {
    return t("plans.state." + state);
}

std::string choiceText(const Texts& t, const std::optional<bool>& keep) {
    if (!keep) {
        return t("plans.choice.undecided");
    }
    return t(*keep ? "plans.choice.keep" : "plans.choice.reject");
}

// "glm cn", or for an agent's sign-in "Claude Code sign-in".
std::string planText(const Texts& t, const PlanCandidateRecord& c) {
    if (c.family == PlanDiscovery::kOAuthFamily) {
        if (const auto agent = agentSourceNamed(c.toolID)) {
            return t("plans.signIn.plan", {{"agent", std::string(displayName(*agent))}});
        }
    }
    return c.family + " " + c.region;
}

ojson candidateJSON(const PlanReviewRow& row) {
    const auto& c = row.candidate;
    const auto opt = [](const std::optional<std::string>& v) {
        return v ? ojson(*v) : ojson(nullptr);
    };
    return ojson{
        {"id", c.id},
        {"revision", c.revision},
        {"family", c.family},
        {"region", c.region},
        {"tool", c.toolID},
        {"source", c.sourceDisplayName},
        {"entry", c.sourceEntryID},
        {"current", c.isCurrent},
        {"endpoint", opt(c.endpointBaseURL)},
        {"credentialOrigin", opt(c.credentialOrigin)},
        {"credentialFingerprint", opt(c.credentialFingerprint)},
        {"credentialResolution", c.credentialResolution},
        {"validation", c.validationState},
        {"proposedAccount", "plan:" + c.proposedAccountID},
        {"choice", row.keep ? ojson(*row.keep ? "keep" : "reject") : ojson(nullptr)},
    };
}

void printRefusal(CommandContext& ctx, const Texts& t, const PlanReviewMessage& refusal) {
    ctx.err << "kestrel: " << t(refusal.key);
    if (!refusal.candidateID.empty()) {
        ctx.err << " (" << refusal.candidateID << ")";
    }
    ctx.err << "\n";
}

}  // namespace

int runPlans(CommandContext& ctx, const PlansOptions& options) {
    auto s = openPlans(ctx, options);
    if (!s) {
        return kExitFailure;
    }
    const auto review = discoverPlans(*s->app, s->options);
    if (!review) {
        ctx.err << "kestrel: " << review.error() << "\n";
        return kExitFailure;
    }
    if (options.json) {
        auto rows = ojson::array();
        for (const auto& row : review->rows) {
            rows.push_back(candidateJSON(row));
        }
        ctx.out << ojson{{"batch",
                          review->batchID.empty() ? ojson(nullptr) : ojson(review->batchID)},
                         {"pending", rows}}
                       .dump(2)
                << "\n";
        return kExitOK;
    }
    const auto& t = s->t;
    if (review->rows.empty()) {
        ctx.out << t("plans.none") << "\n";
        return kExitOK;
    }
    ctx.out << t("plans.header",
                 {{"count", std::to_string(review->rows.size())}, {"batch", review->batchID}})
            << "\n\n";
    TextTable table({{t("plans.column.id")},
                     {t("plans.column.plan")},
                     {t("plans.column.source")},
                     {t("plans.column.endpoint")},
                     {t("plans.column.key")},
                     {t("plans.column.validation")},
                     {t("plans.column.choice")}});
    for (const auto& row : review->rows) {
        const auto& c = row.candidate;
        table.addRow(
            {c.id, planText(t, c) + (c.isCurrent ? " *" : ""), c.sourceDisplayName,
             c.endpointBaseURL.value_or("-"),
             c.credentialFingerprint.value_or(t("plans.resolution." + c.credentialResolution)),
             stateText(t, c.validationState), choiceText(t, row.keep)});
    }
    table.render(ctx.out, ctx.colour);
    ctx.out << "\n" << t("plans.hint") << "\n";
    return kExitOK;
}

int runPlansChoose(CommandContext& ctx, const std::vector<std::string>& ids, bool keep,
                   const PlansOptions& options) {
    auto s = openPlans(ctx, options);
    if (!s) {
        return kExitFailure;
    }
    const auto outcomes = choosePlans(*s->app, ids, keep, s->options);
    if (!outcomes) {
        ctx.err << "kestrel: " << outcomes.error() << "\n";
        return kExitFailure;
    }
    const auto& t = s->t;
    int code = kExitOK;
    auto rows = ojson::array();
    using Status = PlanChoiceOutcome::Status;
    for (const auto& o : *outcomes) {
        const std::string agent = o.tool ? std::string(rawValue(*o.tool)) : std::string();
        std::string status, text;
        switch (o.status) {
            case Status::kept:
                status = "kept";
                text = t("plans.kept", {{"id", o.candidateID}});
                break;
            case Status::rejected:
                status = "rejected";
                text = t("plans.rejected", {{"id", o.candidateID}});
                break;
            case Status::unknownCandidate:
                status = "unknownCandidate";
                text = t("plans.unknown", {{"id", o.candidateID.substr(0, 40)}});
                code = kExitUsage;
                break;
            case Status::quotaOff:
                status = "quotaOff";
                text = t("plans.quotaOff", {{"id", o.candidateID}, {"agent", agent}});
                code = kExitFailure;
                break;
            case Status::notValid:
                status = "notValid";
                text = t("plans.notValid",
                         {{"id", o.candidateID},
                          {"state", stateText(t, std::string(rawValue(o.validation->state)))}});
                code = kExitFailure;
                break;
        }
        rows.push_back(
            {{"id", o.candidateID},
             {"status", status},
             {"validation",
              o.validation ? ojson(std::string(rawValue(o.validation->state))) : ojson(nullptr)},
             {"diagnostic", o.validation && o.validation->diagnosticCode
                                ? ojson(*o.validation->diagnosticCode)
                                : ojson(nullptr)}});
        if (!options.json) {
            (o.status == Status::kept || o.status == Status::rejected ? ctx.out : ctx.err)
                << text << "\n";
        }
    }
    if (options.json) {
        ctx.out << ojson{{"choices", rows}}.dump(2) << "\n";
    }
    return code;
}

int runPlansCommit(CommandContext& ctx, const PlansOptions& options) {
    auto s = openPlans(ctx, options);
    if (!s) {
        return kExitFailure;
    }
    const auto outcome = commitPlans(*s->app, s->options);
    if (!outcome) {
        ctx.err << "kestrel: " << outcome.error() << "\n";
        return kExitFailure;
    }
    const auto& t = s->t;
    if (outcome->refusal) {
        if (options.json) {
            ctx.out << ojson{{"committed", false},
                             {"reason", outcome->refusal->key},
                             {"message", t(outcome->refusal->key)},
                             {"candidate", outcome->refusal->candidateID.empty()
                                               ? ojson(nullptr)
                                               : ojson(outcome->refusal->candidateID)}}
                           .dump(2)
                    << "\n";
        } else {
            printRefusal(ctx, t, *outcome->refusal);
        }
        return kExitFailure;
    }
    const auto& done = *outcome->committed;
    if (options.json) {
        ctx.out << ojson{{"committed", true},
                         {"acceptedAccounts", done.acceptedAccountIDs},
                         {"rejectedCandidates", done.rejectedCandidateIDs}}
                       .dump(2)
                << "\n";
    } else if (done.acceptedAccountIDs.empty() && done.rejectedCandidateIDs.empty()) {
        ctx.out << t("plans.nothingToCommit") << "\n";
    } else {
        ctx.out << t("plans.committed",
                     {{"accepted", std::to_string(done.acceptedAccountIDs.size())},
                      {"rejected", std::to_string(done.rejectedCandidateIDs.size())}})
                << "\n";
        for (const auto& account : done.acceptedAccountIDs) {
            ctx.out << "  " << account << "\n";
        }
    }
    return kExitOK;
}

int runPlansReset(CommandContext& ctx, const std::string& account, const PlansOptions& options) {
    auto s = openPlans(ctx, options);
    if (!s) {
        return kExitFailure;
    }
    const int64_t count = resetPlanAccount(*s->app, account);
    if (options.json) {
        ctx.out << ojson{{"account", account}, {"returnedToReview", count}}.dump(2) << "\n";
    } else {
        ctx.out << s->t(count > 0 ? "plans.reset.done" : "plans.reset.none",
                        {{"account", account.substr(0, 80)}, {"count", std::to_string(count)}})
                << "\n";
    }
    return count > 0 ? kExitOK : kExitFailure;
}

}  // namespace kestrel::cli
