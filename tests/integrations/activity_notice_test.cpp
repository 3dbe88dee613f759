// Live sessions and the notices they raise: one per finished run or request, however often the
// same pulses are read.
#include "core/integrations/activity_notice.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <fstream>
#include <limits>

#include "core/integrations/activity_inference.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

namespace fs = std::filesystem;
using test_support::TempDir;

constexpr double kT0 = 1'800'000'000;

LiveAgentPulse pulse(LiveAgentState state, double at, double startedAt,
                     std::optional<ActivityPulseNotice> notice = std::nullopt,
                     std::string key = "s1", AgentSource source = AgentSource::claude) {
    LiveAgentPulse p;
    p.source = source;
    p.sessionID = std::move(key);
    p.state = state;
    p.at = at;
    p.startedAt = startedAt;
    p.notice = notice;
    p.projectDisplayName = "secret-project";
    p.task = "fix the login page";
    return p;
}

// A coordinator fed pulse by pulse (each hook call overwrites the session's one file, so a
// reading sees only the newest), with the notices of every reading.
struct Follower {
    ActivityCoordinator coordinator{ActivityPrivacy{false}};
    ActivityNoticeEvaluator evaluator;
    ActivitySessions previous;
    ActivityNoticeSettings settings;

    std::vector<ActivityNotice> read(const std::vector<LiveAgentPulse>& files) {
        coordinator.applyPulses(files);
        auto out = evaluator.notices(previous, coordinator.storage(), settings);
        previous = coordinator.storage();
        return out;
    }
};

std::vector<ActivityNoticeKind> kinds(const std::vector<ActivityNotice>& notices) {
    std::vector<ActivityNoticeKind> out;
    for (const auto& n : notices) {
        out.push_back(n.kind);
    }
    return out;
}

using K = ActivityNoticeKind;
using L = LiveAgentState;
using N = ActivityPulseNotice;

// prompt -> tool use -> permission request -> tool use -> stop.
const std::vector<LiveAgentPulse> kSequence = {
    pulse(L::processing, kT0, kT0),
    pulse(L::processing, kT0 + 5, kT0),
    pulse(L::awaiting, kT0 + 9, kT0, N::permission),
    pulse(L::processing, kT0 + 30, kT0),
    pulse(L::idle, kT0 + 60, kT0, N::completed),
};

TEST(ActivityNotices, AFullRunGivesOneApprovalAndOneFinishedNoticeEvenWhenReadTwice) {
    Follower f;
    std::vector<ActivityNoticeKind> seen;
    for (const auto& p : kSequence) {
        for (int reading = 0; reading < 2; ++reading) {
            auto got = kinds(f.read({p}));
            seen.insert(seen.end(), got.begin(), got.end());
        }
    }
    EXPECT_EQ(seen, (std::vector<K>{K::needsApproval, K::completed}));

    // The session ends after it stopped: the same run, no second "finished".
    EXPECT_TRUE(f.read({pulse(L::idle, kT0 + 61, kT0, N::completed)}).empty());
    // A coordinator built again from the same files (Kestrel restarted its view) still knows
    // what it delivered.
    f.coordinator = ActivityCoordinator{ActivityPrivacy{false}};
    f.previous.clear();
    for (const auto& p : kSequence) {
        EXPECT_TRUE(f.read({p}).empty());
    }
    // The next prompt starts a new run, which finishes with a notice of its own.
    EXPECT_TRUE(f.read({pulse(L::processing, kT0 + 100, kT0 + 100)}).empty());
    EXPECT_EQ(kinds(f.read({pulse(L::idle, kT0 + 200, kT0 + 100, N::completed)})),
              (std::vector<K>{K::completed}));
}

TEST(ActivityNotices, ANoticeWithAnUnchangedStateStillCountsOnce) {
    Follower f;
    f.read({pulse(L::awaiting, kT0, kT0)});
    EXPECT_EQ(kinds(f.read({pulse(L::awaiting, kT0 + 3, kT0, N::question)})),
              (std::vector<K>{K::needsAnswer}));
    EXPECT_TRUE(f.read({pulse(L::awaiting, kT0 + 3, kT0, N::question)}).empty());
    // A second question later is a new request.
    EXPECT_EQ(kinds(f.read({pulse(L::awaiting, kT0 + 40, kT0, N::question)})),
              (std::vector<K>{K::needsAnswer}));
}

TEST(ActivityNotices, SettingsDecideWhichKindsAreRaised) {
    const std::vector<std::pair<N, K>> kindsOfNotice = {{N::completed, K::completed},
                                                        {N::permission, K::needsApproval},
                                                        {N::question, K::needsAnswer},
                                                        {N::failed, K::failed}};
    for (const auto& [notice, kind] : kindsOfNotice) {
        for (int mask = 0; mask < 32; ++mask) {
            Follower f;
            f.settings = {bool(mask & 1),
                          bool(mask & 2),
                          bool(mask & 4),
                          bool(mask & 8),
                          bool(mask & 16),
                          false,
                          0};
            f.read({pulse(L::processing, kT0, kT0)});
            const auto got = f.read({pulse(L::idle, kT0 + 60, kT0, notice)});
            const bool own = kind == K::completed       ? mask & 2
                             : kind == K::needsApproval ? mask & 4
                             : kind == K::needsAnswer   ? mask & 8
                                                        : mask & 16;
            const bool expected = (mask & 1) && own;
            EXPECT_EQ(f.settings.allows(kind), expected) << rawValue(kind) << " mask " << mask;
            EXPECT_EQ(got.size(), expected ? 1u : 0u) << rawValue(kind) << " mask " << mask;
        }
    }
}

TEST(ActivityNotices, ShortRunsFinishQuietlyAndPrivacyHoldsBackProjectAndTask) {
    Follower f;
    f.settings.minimumCompletedElapsed = 30;
    f.read({pulse(L::processing, kT0, kT0)});
    EXPECT_TRUE(f.read({pulse(L::idle, kT0 + 29, kT0, N::completed)}).empty());
    // A failure is raised however short the run.
    f.read({pulse(L::processing, kT0 + 40, kT0 + 40, std::nullopt, "s2")});
    EXPECT_EQ(kinds(f.read({pulse(L::idle, kT0 + 41, kT0 + 40, N::failed, "s2")})),
              (std::vector<K>{K::failed}));

    // A state change to completed without a notice finishes a run too.
    f.read({pulse(L::processing, kT0, kT0, std::nullopt, "s3")});
    const auto done = f.read({pulse(L::idle, kT0 + 90, kT0, std::nullopt, "s3")});
    ASSERT_EQ(done.size(), 1u);
    EXPECT_EQ(done[0].kind, K::completed);
    EXPECT_EQ(done[0].elapsed, 90);
    EXPECT_FALSE(done[0].projectDisplayName);
    EXPECT_NE(done[0].hint, "fix the login page");
    for (const auto& [id, s] : f.coordinator.storage()) {
        EXPECT_FALSE(s.projectDisplayName) << id.rawValue;
        EXPECT_FALSE(s.task) << id.rawValue;
    }

    ActivityCoordinator open{ActivityPrivacy{true}};
    ActivityNoticeEvaluator evaluator;
    ActivityNoticeSettings settings;
    settings.includesProjectNames = true;
    open.applyPulses(std::vector{pulse(L::processing, kT0, kT0)});
    const auto before = open.storage();
    open.applyPulses(std::vector{pulse(L::idle, kT0 + 90, kT0, N::completed)});
    const auto shown = evaluator.notices(before, open.storage(), settings);
    ASSERT_EQ(shown.size(), 1u);
    EXPECT_EQ(shown[0].projectDisplayName, "secret-project");
    EXPECT_EQ(shown[0].hint, "fix the login page");
}

TEST(ActivityNotices, DedupKeyUsesTheRunStartOrTheRequestTime) {
    ActivityNotice n;
    n.source = AgentSource::codex;
    n.sessionKey = "abc";
    n.startedAt = 1000.9;
    n.updatedAt = 2000.2;
    struct Case {
        K kind;
        double startedAt;
        double updatedAt;
        std::string key;
    };
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    const std::vector<Case> cases = {
        {K::completed, 1000.9, 2000.2, "codex|abc|completed|1000"},
        {K::failed, 1000.9, 2000.2, "codex|abc|failed|1000"},
        {K::needsApproval, 1000.9, 2000.2, "codex|abc|needsApproval|2000"},
        {K::needsAnswer, 1000.9, 2000.2, "codex|abc|needsAnswer|2000"},
        {K::completed, nan, 2000.2, "codex|abc|completed"},
        {K::needsAnswer, 1000.9, inf, "codex|abc|needsAnswer"},
        {K::completed, -5, 2000.2, "codex|abc|completed"},
        {K::completed, 1e300, 2000.2, "codex|abc|completed"},
    };
    for (const auto& c : cases) {
        n.kind = c.kind;
        n.startedAt = c.startedAt;
        n.updatedAt = c.updatedAt;
        EXPECT_EQ(n.dedupKey(), c.key);
    }
}

TEST(ActivityCoordinator, SessionsAgeOutByKindAndOldSignalsDoNotRewindThem) {
    ActivityCoordinator c{ActivityPrivacy{true}, ActivityAges{100, 50, 10}};
    c.applyPulses(std::vector{pulse(L::processing, kT0, kT0, std::nullopt, "working"),
                              pulse(L::idle, kT0, kT0 - 30, N::completed, "done")});
    c.apply(signalFromPulse(pulse(L::idle, kT0 - 50, kT0 - 60, std::nullopt, "working")));
    const auto& working = c.storage().at(ActivitySessionID::make(AgentSource::claude, "working"));
    EXPECT_EQ(working.state, ActivityState::working);  // the older signal was ignored
    EXPECT_EQ(
        c.storage().at(ActivitySessionID::make(AgentSource::claude, "done")).elapsed(kT0 + 999),
        30);

    c.expire(kT0 + 49);
    EXPECT_EQ(c.storage().size(), 2u);
    c.expire(kT0 + 51);
    EXPECT_EQ(c.storage().size(), 1u);  // the finished one went first
    c.expire(kT0 + 101);
    EXPECT_TRUE(c.storage().empty());
}

TEST(ActivityInference, ChangedFilesBecomeInferredSessionsUntilAHookSpeaks) {
    TempDir dir;
    const auto home = dir / "home";
    const auto roots = activityRoots(home);
    auto rootOf = [&](AgentSource source) {
        for (const auto& r : roots) {
            if (r.source == source) {
                return fs::path(r.root);
            }
        }
        return fs::path();
    };
    const auto claudeRoot = rootOf(AgentSource::claude);
    const auto opencodeRoot = rootOf(AgentSource::opencode);
    ASSERT_FALSE(claudeRoot.empty());
    ASSERT_FALSE(opencodeRoot.empty());
    fs::create_directories(claudeRoot / "p");
    fs::create_directories(opencodeRoot);
    std::ofstream(claudeRoot / "p/raw-session.jsonl") << "{}\n";
    std::ofstream(opencodeRoot / "opencode.db") << "x";
    std::ofstream(opencodeRoot / "opencode.db-wal") << "x";
    std::ofstream(dir / "elsewhere.jsonl") << "x";
    fs::create_directories(claudeRoot / "hooks");
    std::ofstream(claudeRoot / "settings.json") << "{}";
    std::ofstream(claudeRoot / "hooks/kestrel.json") << "{}";
    std::ofstream(opencodeRoot / "auth.json") << "{}";

    const std::vector<std::string> paths = {
        (claudeRoot / "p/raw-session.jsonl").string(),
        (opencodeRoot / "opencode.db").string(),
        (opencodeRoot / "opencode.db-wal").string(),
        (dir / "elsewhere.jsonl").string(),
        // settings, our own hooks and sign-ins change without any work being done
        (claudeRoot / "settings.json").string(),
        (claudeRoot / "hooks/kestrel.json").string(),
        (opencodeRoot / "auth.json").string(),
        (claudeRoot / "p").string(),
        (claudeRoot / "p/gone.jsonl").string(),
    };
    const auto signals = inferredSignals(paths, roots, kT0, "salt");
    ASSERT_EQ(signals.size(), 2u);  // the database and its journal are one session
    for (const auto& s : signals) {
        EXPECT_EQ(s.state, ActivityState::inferredWorking);
        EXPECT_EQ(s.precision, ActivityPrecision::inferred);
        EXPECT_EQ(s.sessionKey.find("raw-session"), std::string::npos);
        EXPECT_EQ(s.evidence, s.source == AgentSource::opencode
                                  ? ActivityEvidenceKind::productDatabase
                                  : ActivityEvidenceKind::filesystem);
    }

    ActivityCoordinator c;
    for (const auto& s : signals) {
        c.apply(s);
    }
    EXPECT_EQ(c.storage().size(), 2u);
    c.applyPulses(std::vector{pulse(L::processing, kT0 + 1, kT0 + 1)});
    // Claude's hook now speaks for it: its inferred session went, and more file changes add none.
    for (const auto& s : inferredSignals(paths, roots, kT0 + 2, "salt")) {
        c.apply(s);
    }
    std::multiset<std::pair<AgentSource, ActivityPrecision>> have;
    for (const auto& [id, s] : c.storage()) {
        have.insert({s.source, s.precision});
    }
    EXPECT_EQ(have, (std::multiset<std::pair<AgentSource, ActivityPrecision>>{
                        {AgentSource::claude, ActivityPrecision::exact},
                        {AgentSource::opencode, ActivityPrecision::inferred}}));
}

TEST(ActivityInference, ARecentLookFindsFreshFilesOnlyAndStaysBounded) {
    TempDir dir;
    const auto roots = activityRoots(dir / "home");
    ASSERT_FALSE(roots.empty());
    const fs::path root = roots.front().root;
    fs::create_directories(root / "deep/er");
    const double now =
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    std::ofstream(root / "deep/er/fresh.jsonl") << "{}";
    std::ofstream(root / "old.jsonl") << "{}";
    fs::last_write_time(root / "old.jsonl",
                        fs::last_write_time(root / "old.jsonl") - std::chrono::hours(2));
    fs::create_symlink("/", root / "loop");  // never followed
    EXPECT_EQ(recentlyChangedFiles(roots, now, 120),
              (std::vector<std::string>{(root / "deep/er/fresh.jsonl").string()}));

    for (int i = 0; i < 50; ++i) {
        std::ofstream(root / ("f" + std::to_string(i))) << "x";
    }
    EXPECT_LE(recentlyChangedFiles(roots, now, 120, 10).size(), 10u);
    EXPECT_EQ(recentlyChangedFiles(roots, now, 120).size(), 51u);
}

}  // namespace
}  // namespace kestrel
