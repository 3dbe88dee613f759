// Pulse files as the hooks leave them, and as a hostile or broken folder holds them.
#include "core/integrations/live_agent_hub.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <fstream>

#include "core/integrations/hook_installer.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

namespace fs = std::filesystem;
using test_support::TempDir;

constexpr double kNow = 1'800'000'000;

std::string pulseText(std::string_view source, std::string_view state, std::string_view key,
                      double at, std::string_view extra = "") {
    std::string out = "{";
    if (!source.empty()) {
        out += "\"source\":\"" + std::string(source) + "\",";
    }
    out += "\"state\":\"" + std::string(state) + "\",\"session_key\":\"" + std::string(key) +
           "\",\"at\":" + std::to_string(static_cast<int64_t>(at)) + std::string(extra) + "}";
    return out;
}

void writeFile(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

void setModified(const fs::path& path, double epochSeconds) {
    const auto sys = std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(
            std::chrono::duration<double>(epochSeconds)));
    fs::last_write_time(path, std::chrono::file_clock::from_sys(sys));
}

TEST(LiveAgentHub, ParsesWhatTheHookWritesAndRefusesEverythingElse) {
    const std::string full =
        R"({"format_version":1,"source":"codex","state":"awaiting","session_key":"ab12","pid":4242,)"
        R"("cwd":"/w/app","at":1800000000,"started_at":1799999900,"evidence":"hook",)"
        R"("precision":"exact","hook_version":1,"project":"app","notice":"permission","hint":"prompt"})";
    const auto p = LiveAgentHub::parse(full);
    ASSERT_TRUE(p);
    EXPECT_EQ(p->source, AgentSource::codex);
    EXPECT_EQ(p->state, LiveAgentState::awaiting);
    EXPECT_EQ(p->sessionID, "ab12");
    EXPECT_EQ(p->pid, 4242);
    EXPECT_EQ(p->cwd, "/w/app");
    EXPECT_EQ(p->projectDisplayName, "app");
    EXPECT_EQ(p->startedAt, 1799999900.0);
    EXPECT_EQ(p->hookVersion, 1);
    EXPECT_EQ(p->notice, ActivityPulseNotice::permission);
    EXPECT_EQ(p->hint, "prompt");

    struct Case {
        const char* name;
        std::string bytes;
        std::optional<AgentSource> defaultSource;
        bool valid;
    };
    const std::vector<Case> cases = {
        {"half-written", full.substr(0, full.size() / 2), {}, false},
        {"empty", "", {}, false},
        {"an array", "[1,2]", {}, false},
        {"unknown source", pulseText("vim", "idle", "k", kNow), AgentSource::claude, false},
        {"source not a string",
         R"({"source":7,"state":"idle","session_key":"k","at":1800000000})",
         {},
         false},
        {"no source, caller's default", pulseText("", "idle", "k", kNow), AgentSource::pi, true},
        {"no source, no default", pulseText("", "idle", "k", kNow), {}, false},
        {"unknown state", pulseText("claude", "sleeping", "k", kNow), {}, false},
        {"session key with a path in it",
         pulseText("claude", "idle", "../../etc", kNow),
         {},
         false},
        {"no date", R"({"source":"claude","state":"idle","session_key":"k"})", {}, false},
        {"date in the year 33000", pulseText("claude", "idle", "k", 1e12), {}, false},
        {"date before 2001", pulseText("claude", "idle", "k", 5), {}, false},
        {"date as text",
         R"({"source":"claude","state":"idle","session_key":"k","at":"now"})",
         {},
         false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(LiveAgentHub::parse(c.bytes, c.defaultSource).has_value(), c.valid) << c.name;
    }
    EXPECT_EQ(LiveAgentHub::parse(pulseText("", "idle", "k", kNow), AgentSource::pi)->source,
              AgentSource::pi);
}

TEST(LiveAgentHub, TextFromAPulseCannotDriveTheTerminalAndOddFieldsFallBack) {
    const auto p = LiveAgentHub::parse(pulseText(
        "claude", "processing", "k", kNow,
        R"(,"cwd":"/w/\u001b[2Jx","project":"p\u0007q","notice":"explode","pid":99999999999,)"
        R"("started_at":1900000000,"evidence":"telepathy")"));
    ASSERT_TRUE(p);
    EXPECT_EQ(p->cwd, "/w/[2Jx");
    EXPECT_EQ(p->projectDisplayName, "pq");
    EXPECT_FALSE(p->notice);
    EXPECT_EQ(p->pid, 0);
    EXPECT_EQ(p->startedAt, kNow);  // a start after the report is clamped to it
    EXPECT_EQ(p->evidence, ActivityEvidenceKind::hook);
}

TEST(LiveAgentHub, ReadActiveSkipsHostileFilesAndOldOrFuturePulses) {
    TempDir dir;
    const auto live = dir / "live";
    fs::create_directories(live);
    writeFile(live / "claude-fresh.json", pulseText("claude", "processing", "fresh", kNow - 5));
    writeFile(live / "claude-skew.json", pulseText("claude", "idle", "skew", kNow + 20));
    writeFile(live / "codex-future.json", pulseText("codex", "processing", "future", kNow + 3600));
    writeFile(live / "codex-past.json", pulseText("codex", "processing", "past", kNow - 86400));
    writeFile(live / "kimi-half.json", R"({"source":"kimi","state":"proc)");
    writeFile(live / ".claude-123.tmp", pulseText("claude", "processing", "tmp", kNow));
    writeFile(live / "notes.txt", pulseText("claude", "processing", "txt", kNow));
    // 100 MB without writing 100 MB: a sparse file.
    {
        std::ofstream(live / "huge.json") << pulseText("claude", "processing", "huge", kNow);
        fs::resize_file(live / "huge.json", 100ull * 1024 * 1024);
    }
    fs::create_symlink("/dev/zero", live / "zero.json");
    ASSERT_EQ(::mkfifo((live / "fifo.json").c_str(), 0600), 0);
    fs::create_directories(live / "folder.json");
    for (const auto& entry : fs::directory_iterator(live)) {
        if (entry.path().filename() != "zero.json") {
            setModified(entry.path(), kNow - 1);
        }
    }

    const auto reading = LiveAgentHub::readActive(live, kNow, 30 * 60);
    std::vector<std::string> keys;
    for (const auto& p : reading.pulses) {
        keys.push_back(p.sessionID);
    }
    EXPECT_EQ(keys, (std::vector<std::string>{"skew", "fresh"}));  // newest first
    EXPECT_FALSE(reading.truncated);
    EXPECT_GE(reading.skipped, 4u);  // half, huge, symlink, fifo, folder
}

TEST(LiveAgentHub, AFolderOfTenThousandFilesIsReadWithinBoundsAndPruned) {
    TempDir dir;
    const auto live = dir / "live";
    fs::create_directories(live);
    for (int i = 0; i < 10'000; ++i) {
        const auto path = live / ("claude-old" + std::to_string(i) + ".json");
        writeFile(path, pulseText("claude", "idle", "old" + std::to_string(i), kNow - 3 * 86400));
        setModified(path, kNow - 3 * 86400);
    }
    for (int i = 0; i < 40; ++i) {
        const auto path = live / ("codex-new" + std::to_string(i) + ".json");
        writeFile(path, pulseText("codex", "processing", "new" + std::to_string(i), kNow - i));
        setModified(path, kNow - i);
    }

    PulseReadLimits limits;
    limits.maxParsed = 16;
    const auto bounded = LiveAgentHub::readActive(live, kNow, 30 * 60, limits);
    ASSERT_EQ(bounded.pulses.size(), 16u);
    EXPECT_TRUE(bounded.truncated);
    EXPECT_EQ(bounded.pulses.front().sessionID, "new0");  // the newest are the ones read

    limits.maxEntries = 100;
    EXPECT_TRUE(LiveAgentHub::readActive(live, kNow, 30 * 60, limits).truncated);

    EXPECT_EQ(LiveAgentHub::prune(live, kNow, 86400, 4000), 4000u);
    EXPECT_EQ(LiveAgentHub::prune(live, kNow, 86400), 1000u);  // bounded per call
    while (LiveAgentHub::prune(live, kNow, 86400) > 0) {
    }
    EXPECT_EQ(static_cast<std::size_t>(std::distance(fs::directory_iterator(live), {})), 40u);
    EXPECT_EQ(LiveAgentHub::readActive(live, kNow, 30 * 60).pulses.size(), 40u);
}

TEST(LiveAgentHub, ProcessingAndTerminatedSourcesFollowTheNewestPulseOfEachSession) {
    auto pulse = [](AgentSource source, std::string key, LiveAgentState state, double at) {
        LiveAgentPulse p;
        p.source = source;
        p.sessionID = std::move(key);
        p.state = state;
        p.at = at;
        return p;
    };
    using S = AgentSource;
    using L = LiveAgentState;
    const std::vector<LiveAgentPulse> before = {
        pulse(S::claude, "a", L::processing, kNow - 10),
        pulse(S::codex, "b", L::awaiting, kNow - 10),
        pulse(S::kimi, "c", L::processing, kNow - 10),
        pulse(S::grok, "d", L::idle, kNow - 10),
    };
    const std::vector<LiveAgentPulse> after = {
        pulse(S::claude, "a", L::idle, kNow),             // finished
        pulse(S::claude, "a", L::processing, kNow - 20),  // an older copy does not count
        pulse(S::codex, "b", L::processing, kNow),        // still going
        pulse(S::grok, "d", L::processing, kNow),         // kimi's session is gone
    };
    EXPECT_EQ(LiveAgentHub::processingSources(before), (std::set<S>{S::claude, S::kimi}));
    EXPECT_EQ(LiveAgentHub::processingSources(after), (std::set<S>{S::codex, S::grok}));
    EXPECT_EQ(LiveAgentHub::sourcesWithTerminatedSessions(before, after),
              (std::set<S>{S::claude, S::kimi}));
}

TEST(LiveAgentHub, SaltIsTheFirstLineAndKeysDependOnSaltSourceAndId) {
    TempDir dir;
    EXPECT_FALSE(LiveAgentHub::loadSessionSalt(dir.path()));
    writeFile(LiveAgentHub::sessionSaltURL(dir.path()), "s3cr3t\nignored\n");
    EXPECT_EQ(LiveAgentHub::loadSessionSalt(dir.path()), "s3cr3t");
    const auto key = LiveAgentHub::sessionKey("raw-1", AgentSource::claude, "s3cr3t");
    EXPECT_EQ(key.size(), 64u);
    EXPECT_EQ(key.find("raw-1"), std::string::npos);
    EXPECT_NE(key, LiveAgentHub::sessionKey("raw-1", AgentSource::codex, "s3cr3t"));
    EXPECT_NE(key, LiveAgentHub::sessionKey("raw-1", AgentSource::claude, "other"));
    EXPECT_NE(key, LiveAgentHub::sessionKey("raw-2", AgentSource::claude, "s3cr3t"));
}

TEST(LiveAgentHub, ActivePulsesReachHalfAMinuteAheadAndTheStaleLimitBack) {
    const std::vector<std::pair<double, bool>> agesCounted = {
        {-31, false}, {-30, true}, {0, true}, {600, true}, {601, false}, {1e6, false}};
    std::vector<LiveAgentPulse> pulses;
    std::vector<double> expected;
    for (const auto& [age, counted] : agesCounted) {
        LiveAgentPulse p;
        p.at = kNow - age;
        pulses.push_back(p);
        if (counted) {
            expected.push_back(p.at);
        }
    }
    std::vector<double> kept;
    for (const auto& p : HookInstaller::exactActivityPulses(pulses, kNow, 600)) {
        kept.push_back(p.at);
    }
    EXPECT_EQ(kept, expected);
}

}  // namespace
}  // namespace kestrel
