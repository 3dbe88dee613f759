// Agents' folders the scan cannot trust: FIFOs and devices where files should be, compressed
// archives that expand without end, links that loop, and files that vanish or shrink between the
// listing and the read. Each must end the scan of that file with a clear error (or a later
// re-read), never a hang, and never leave half of what the file held in the ledger.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zstd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <future>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "core/integrations/in_memory_instance_repository.hpp"
#include "core/integrations/integration_instance_coordinator.hpp"
#include "core/integrations/plugin_registry.hpp"
#include "core/ledger/ingestor.hpp"
#include "core/ledger/usage_store.hpp"
#include "core/sources/source_readers.hpp"
#include "core/sources/zstd_reader.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

namespace fs = std::filesystem;
using test_support::TempDir;

constexpr const char* kClaudeFile = ".claude/projects/-home-u-app/sess-1.jsonl";
constexpr const char* kCodexFile =
    ".codex/sessions/2026/08/21/rollout-2026-08-21T10-00-00-0198c1a2-1111-7222-8333-444455556666"
    ".jsonl";
constexpr const char* kCodexArchive =
    ".codex/archived_sessions/"
    "rollout-2026-08-20T10-00-00-0198c1a2-1111-7222-8333-444455556667.jsonl.zst";

std::string claudeLine(const std::string& id, int64_t output) {
    return R"({"type":"assistant","sessionId":"sess-1","cwd":"/home/u/app",)"
           R"("timestamp":"2026-08-21T10:15:30.123Z","message":{"id":")" +
           id + R"(","model":"claude-sonnet-4-5-20250929","usage":{"input_tokens":4,)"
                R"("output_tokens":)" +
           std::to_string(output) + "}}}\n";
}

std::string codexLine(const std::string& ts, const std::string& type,
                      const nlohmann::json& payload) {
    return nlohmann::json{{"timestamp", ts}, {"type", type}, {"payload", payload}}.dump() + "\n";
}

// A rollout with `reports` running totals, each one event.
std::string codexRollout(const std::string& id, int reports) {
    std::string s = codexLine("2026-08-21T10:00:00.000Z", "session_meta",
                              {{"id", id}, {"cwd", "/home/u"}});
    s += codexLine("2026-08-21T10:00:01.000Z", "turn_context",
                   {{"cwd", "/home/u"}, {"model", "gpt-5-codex"}});
    for (int i = 1; i <= reports; ++i) {
        const nlohmann::json usage{{"input_tokens", 100 * i}, {"cached_input_tokens", 0},
                                   {"output_tokens", 10 * i}, {"reasoning_output_tokens", 0},
                                   {"total_tokens", 110 * i}};
        s += codexLine("2026-08-21T10:0" + std::to_string(i) + ":00.000Z", "event_msg",
                       {{"type", "token_count"}, {"info", {{"total_token_usage", usage}}}});
    }
    return s;
}

std::string compressFrame(const std::string& text) {
    std::string out(ZSTD_compressBound(text.size()), '\0');
    const auto n = ZSTD_compress(out.data(), out.size(), text.data(), text.size(), 19);
    EXPECT_FALSE(ZSTD_isError(n));
    out.resize(n);
    return out;
}

// `head` followed by `frames` copies of one small frame holding a MiB of junk lines: a file of a
// few kilobytes whose content is `frames` MiB.
std::string zstdBomb(const std::string& head, int frames) {
    std::string line(1023, 'a');
    line += '\n';
    std::string mebibyte;
    for (int i = 0; i < 1024; ++i) {
        mebibyte += line;
    }
    const auto frame = compressFrame(mebibyte);
    std::string out = compressFrame(head);
    for (int i = 0; i < frames; ++i) {
        out += frame;
    }
    return out;
}

class HostileFilesTest : public ::testing::Test {
  protected:
    HostileFilesTest() : store(support.path()), coordinator(PluginRegistry::builtIn(), repository) {
        coordinator.reconcileInstallations(home.path(), 1000.0);
    }

    std::unique_ptr<Ingestor> ingestor(Ingestor::ReaderLookup readers = {}) {
        return std::make_unique<Ingestor>(store, PriceTable::bundled(), &coordinator,
                                          emptyEnvironment(), std::move(readers));
    }

    static SourceScanReport reportOf(const Ingestor& ingestor, AgentSource source) {
        for (const auto& r : ingestor.lastReports()) {
            if (r.source == source) {
                return r;
            }
        }
        ADD_FAILURE() << "no report for " << rawValue(source);
        return {};
    }

    LedgerSummary summaryOf(AgentSource source) {
        const auto all = store.ledgerSummariesBySource({});
        const auto it = all.find(source);
        return it == all.end() ? LedgerSummary{} : it->second;
    }

    TempDir home;
    TempDir support;
    UsageStore store;
    InMemoryIntegrationInstanceRepository repository;
    IntegrationInstanceCoordinator coordinator;
};

// ---- FIFOs and devices -------------------------------------------------------------------------

TEST_F(HostileFilesTest, FifosAndDevicesInAgentFoldersNeverStallTheScan) {
    home.write(kClaudeFile, claudeLine("m1", 5) + claudeLine("m2", 7));
    home.write(kCodexFile, codexRollout("0198c1a2-1111-7222-8333-444455556666", 2));

    // Where an agent's records, archives or settings are looked for.
    const std::vector<std::string> fifos{
        ".claude/projects/-home-u-app/pipe.jsonl",
        ".claude.json",
        ".codex/sessions/2026/08/21/rollout-2026-08-21T11-00-00-0198c1a2-1111-7222-8333-44445555aaaa.jsonl",
        ".codex/archived_sessions/rollout-2026-08-20T11-00-00-0198c1a2-1111-7222-8333-44445555bbbb.jsonl.zst",
        ".codex/config.toml",
        ".codex/auth.json",
        ".gemini/tmp/p/chats/session-x.jsonl",
        ".gemini/projects.json",
        ".kimi/config.toml",
    };
    for (const auto& f : fifos) {
        fs::create_directories((home / f).parent_path());
        ASSERT_EQ(::mkfifo((home / f).c_str(), 0600), 0) << f;
    }
    const std::vector<std::pair<std::string, std::string>> devices{
        {".claude/projects/-home-u-app/zero.jsonl", "/dev/zero"},
        {".claude/projects/-home-u-app/null.jsonl", "/dev/null"},
        {".codex/archived_sessions/rollout-2026-08-20T12-00-00-0198c1a2-1111-7222-8333-44445555cccc.jsonl.zst",
         "/dev/urandom"},
    };
    for (const auto& [link, device] : devices) {
        fs::create_symlink(device, home / link);
    }

    auto scanner = ingestor();
    auto scan = std::async(std::launch::async,
                           [&] { return scanner->scan(home.path(), {}, std::nullopt, false); });
    const bool finished = scan.wait_for(std::chrono::seconds(30)) == std::future_status::ready;
    EXPECT_TRUE(finished) << "the scan blocked on a FIFO or a device";
    // A reader stuck in open() on a FIFO is set free by a writer that comes and goes.
    while (scan.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready) {
        for (const auto& f : fifos) {
            const int fd = ::open((home / f).c_str(), O_RDWR | O_NONBLOCK);
            if (fd >= 0) {
                ::close(fd);
            }
        }
    }
    scan.get();
    EXPECT_EQ(summaryOf(AgentSource::claude).eventCount, 2);
    EXPECT_EQ(summaryOf(AgentSource::codex).eventCount, 2);
}

// ---- Decompression bombs -----------------------------------------------------------------------

TEST_F(HostileFilesTest, ContentCapGrowsWithTheFileAboveAFloor) {
    EXPECT_EQ(Zstd::contentCap(0), Zstd::kMinContentCap);
    EXPECT_EQ(Zstd::contentCap(1000), Zstd::kMinContentCap);
    EXPECT_EQ(Zstd::contentCap(uint64_t{1} << 30), (uint64_t{1} << 30) * Zstd::kMaxExpansion);
    EXPECT_EQ(Zstd::contentCap(UINT64_MAX / 10), UINT64_MAX) << "no wrap-around";
}

TEST_F(HostileFilesTest, ABombStopsAtTheCapWithAnErrorAndHandsOutNothingPastIt) {
    const auto file = home.write("bomb.jsonl.zst", zstdBomb("{}\n", 64));
    ASSERT_LT(fs::file_size(file), 64u << 10) << "a bomb, not a big file";
    struct Case {
        uint64_t cap;
        bool fails;
    };
    for (const auto& c : {Case{uint64_t{8} << 20, true}, Case{uint64_t{80} << 20, false}}) {
        SCOPED_TRACE(c.cap);
        uint64_t handedOut = 0;
        const auto end = Zstd::forEachLine(
            file, [&](std::string_view line, int64_t) { handedOut += line.size() + 1; },
            JSONL::kDefaultMaxLineBytes, c.cap);
        EXPECT_LE(handedOut, c.cap);
        if (c.fails) {
            ASSERT_FALSE(end.has_value());
            EXPECT_EQ(end.error().errorNumber, EFBIG);
            EXPECT_EQ(end.error().operation, "decompress");
            EXPECT_NE(end.error().description().find(file.string()), std::string::npos)
                << end.error().description();
        } else {
            ASSERT_TRUE(end.has_value()) << end.error().description();
            EXPECT_EQ(static_cast<uint64_t>(end->nextOffset), (uint64_t{64} << 20) + 3);
        }
    }
}

TEST_F(HostileFilesTest, ABombedArchiveIsAReadErrorAndCommitsNoneOfItsEvents) {
    home.write(kCodexFile, codexRollout("0198c1a2-1111-7222-8333-444455556666", 2));
    // Real usage first, then more content than any archive of this size can hold.
    const int frames = static_cast<int>(Zstd::kMinContentCap >> 20) + 8;
    home.write(kCodexArchive, zstdBomb(codexRollout("0198c1a2-1111-7222-8333-444455556667", 3),
                                       frames));

    auto scanner = ingestor();
    scanner->scan(home.path(), {}, std::nullopt, false);
    const auto report = reportOf(*scanner, AgentSource::codex);
    ASSERT_EQ(report.errors.size(), 1u);
    EXPECT_EQ(report.errors[0].path, (home / kCodexArchive).string());
    EXPECT_EQ(report.errors[0].errorNumber, EFBIG);
    EXPECT_EQ(summaryOf(AgentSource::codex).eventCount, 2) << "only the plain rollout's";
}

// ---- Symbolic link loops -----------------------------------------------------------------------

TEST_F(HostileFilesTest, LinkLoopsAreNamedInTheScanErrorsAndTheRestIsRead) {
    home.write(kClaudeFile, claudeLine("m1", 5) + claudeLine("m2", 7));
    const auto projects = home / ".claude/projects";
    fs::create_symlink("..", projects / "-home-u-app" / "up");
    fs::create_symlink("self.jsonl", projects / "self.jsonl");

    auto scanner = ingestor();
    scanner->scan(home.path(), {}, std::nullopt, false);
    const auto report = reportOf(*scanner, AgentSource::claude);
    std::vector<std::string> named;
    for (const auto& e : report.errors) {
        EXPECT_EQ(e.errorNumber, ELOOP) << e.description();
        named.push_back(e.path);
    }
    std::ranges::sort(named);
    EXPECT_EQ(named, (std::vector<std::string>{(projects / "-home-u-app/up").string(),
                                               (projects / "self.jsonl").string()}));
    EXPECT_EQ(report.status, SourceStatus::readError);
    EXPECT_EQ(summaryOf(AgentSource::claude).eventCount, 2);
}

// ---- Files that change between the listing and the read ---------------------------------------

TEST_F(HostileFilesTest, FilesVanishingOrCutShortBeforeTheReadNeverCommitHalfARecord) {
    const std::string l1 = claudeLine("m1", 5), l2 = claudeLine("m2", 7), l3 = claudeLine("m3", 9);
    const std::string whole = l1 + l2 + l3;
    struct Case {
        const char* name;
        // What happens to the file after the listing, before the read.
        std::function<void(const fs::path&)> meanwhile;
        int64_t vanished;
        int64_t eventsFirst;
        int64_t outputFirst;
    };
    const std::vector<Case> cases{
        {"vanishes", [](const fs::path& f) { fs::remove(f); }, 1, 0, 0},
        {"cut inside the second record",
         [&](const fs::path& f) { fs::resize_file(f, l1.size() + l2.size() / 2); }, 0, 1, 5},
        {"cut right after the first record's line feed",
         [&](const fs::path& f) { fs::resize_file(f, l1.size()); }, 0, 1, 5},
        {"cut inside the first record", [&](const fs::path& f) { fs::resize_file(f, 10); }, 0, 0,
         0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir caseHome, caseSupport;
        UsageStore caseStore(caseSupport.path());
        const auto file = caseHome.write(kClaudeFile, whole);
        // The Claude reader, with the change made just before it opens the file.
        const Ingestor::ReaderLookup readers = [&](AgentSource s) -> std::optional<SourceReader> {
            auto reader = SourceReaders::reader(s);
            if (reader && s == AgentSource::claude) {
                reader->ingest = [inner = reader->ingest, &c](const SourceReadContext& context) {
                    c.meanwhile(context.file);
                    return inner(context);
                };
            }
            return reader;
        };
        Ingestor first(caseStore, PriceTable::bundled(), &coordinator, emptyEnvironment(), readers);
        first.scan(caseHome.path(), {}, std::nullopt, false);
        const auto report = reportOf(first, AgentSource::claude);
        EXPECT_TRUE(report.errors.empty());
        EXPECT_EQ(report.filesVanished, c.vanished);
        const auto summary = caseStore.ledgerSummariesBySource({})[AgentSource::claude];
        EXPECT_EQ(summary.eventCount, c.eventsFirst);
        EXPECT_EQ(summary.outputVisible.value_or(0), c.outputFirst);

        // The agent writes the file whole again: the next scan reads what the first could not,
        // and each record counts once.
        caseHome.write(kClaudeFile, whole);
        Ingestor second(caseStore, PriceTable::bundled(), &coordinator);
        second.scan(caseHome.path(), {}, std::nullopt, false);
        const auto after = caseStore.ledgerSummariesBySource({})[AgentSource::claude];
        EXPECT_EQ(after.eventCount, 3);
        EXPECT_EQ(after.outputVisible.value_or(0), 5 + 7 + 9);
    }
}

}  // namespace
}  // namespace kestrel
