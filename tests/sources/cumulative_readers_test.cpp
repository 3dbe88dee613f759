// The readers of agents that keep running totals (goose, Hermes, Zed, droid): each scan must
// yield what the totals grew by, exactly once, whatever the store looks like.

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>

#include "core/model/privacy.hpp"
#include "core/sources/readonly_sqlite.hpp"
#include "core/sources/stores/goose_reader.hpp"
#include "core/sources/stores/hermes_reader.hpp"
#include "core/sources/stores/zed_reader.hpp"
#include "core/sources/transcripts/droid_reader.hpp"
#include "core/sources/zstd_reader.hpp"
#include "tests/support/temp_dir.hpp"
#include "tools/agent_corpus/corpus_writer.hpp"
#include "tools/agent_corpus/cumulative_corpus.hpp"

namespace kestrel {
namespace {

namespace fs = std::filesystem;
using test_support::TempDir;

struct Scan {
    IngestResult result;
    std::vector<UsageEvent> events;
};

SourceReadContext contextFor(const fs::path& file,
                             const std::optional<SourceCheckpoint>& checkpoint = std::nullopt) {
    SourceReadContext context;
    context.file = file;
    context.checkpoint = checkpoint;
    context.sink = [](UsageEvent&&) {};
    return context;
}

Scan scan(const SourceReader& reader, const fs::path& file,
          const std::optional<SourceCheckpoint>& checkpoint = std::nullopt) {
    Scan out;
    auto context = contextFor(file, checkpoint);
    context.sink = [&](UsageEvent&& e) { out.events.push_back(std::move(e)); };
    auto result = reader.ingest(context);
    EXPECT_TRUE(result.has_value()) << (result ? "" : result.error().description());
    if (result) {
        out.result = std::move(*result);
    }
    return out;
}

// The four counters that every one of these agents reports, as raw totals.
struct Totals {
    int64_t input = 0, cacheRead = 0, cacheWrite = 0, output = 0;
};

ExclusiveTokens bucketsOf(const Totals& t) {
    return {t.input, t.cacheRead, t.cacheWrite, t.output, 0};
}

Totals minus(const Totals& a, const Totals& b) {
    return {a.input - b.input, a.cacheRead - b.cacheRead, a.cacheWrite - b.cacheWrite,
            a.output - b.output};
}

// One agent's store with one session whose totals can be set: `set` writes them (creating the
// store the first time) and returns the file the reader is given.
struct Agent {
    std::string name;
    AgentSource source;
    SourceReader reader;
    std::function<fs::path(const fs::path& dir, const Totals&)> set;
};

std::vector<Agent> agents() {
    std::vector<Agent> list;
    list.push_back({"goose", AgentSource::goose, GooseReader::reader(),
                    [](const fs::path& dir, const Totals& t) {
                        const auto db = dir / "sessions/sessions.db";
                        if (!fs::exists(db)) {
                            corpus::createGooseDB(db);
                        }
                        // goose has no cache counters: only input and output move.
                        corpus::putGooseSession(
                            db, {"20260821_1", "gpt-5", "openai", "/home/u/app",
                                 "2026-08-21 10:00:00", t.input + t.output, t.input, t.output});
                        return db;
                    }});
    list.push_back({"hermes", AgentSource::hermes, HermesReader::reader(),
                    [](const fs::path& dir, const Totals& t) {
                        const auto db = dir / "state.db";
                        if (!fs::exists(db)) {
                            corpus::createHermesDB(db);
                        }
                        corpus::putHermesSession(
                            db, {"s1", "claude-sonnet-4-5", 1755770400.0, std::nullopt, "anthropic",
                                 "/home/u/app", t.input, t.output, t.cacheRead, t.cacheWrite, 0});
                        return db;
                    }});
    list.push_back(
        {"zed", AgentSource::zed, ZedReader::reader(), [](const fs::path& dir, const Totals& t) {
             const auto db = dir / "threads.db";
             if (!fs::exists(db)) {
                 corpus::createZedDB(db);
             }
             corpus::ZedThreadJSON thread;
             thread.cumulative = corpus::ZedUsage{t.input, t.output, t.cacheWrite, t.cacheRead};
             corpus::putZedThread(db, "thread-1", "2026-08-21T10:00:00Z", "zstd",
                                  corpus::zstdFrame(corpus::zedThreadText(thread)), "/home/u/app");
             return db;
         }});
    list.push_back({"droid", AgentSource::droid, DroidReader::reader(),
                    [](const fs::path& dir, const Totals& t) {
                        return corpus::writeDroidSettings(
                            dir, "-home-u-app", "d1", "claude-sonnet-4-5",
                            {t.input, t.output, t.cacheWrite, t.cacheRead, 0}, std::nullopt,
                            "/home/u/app");
                    }});
    return list;
}

Totals forAgent(const Agent& agent, Totals t) {
    if (agent.source == AgentSource::goose) {
        t.cacheRead = t.cacheWrite = 0;
    }
    return t;
}

TEST(CumulativeReaders, EachScanYieldsOnlyWhatTheTotalsGrewBy) {
    for (const auto& agent : agents()) {
        SCOPED_TRACE(agent.name);
        TempDir dir;
        const Totals first = forAgent(agent, {1000, 5000, 300, 200});
        const Totals grown = forAgent(agent, {1500, 9000, 300, 260});
        const auto file = agent.set(dir.path(), first);

        // First scan: the whole totals, as one session-level event.
        const auto a = scan(agent.reader, file);
        ASSERT_EQ(a.events.size(), 1u);
        const auto& e = a.events[0];
        EXPECT_EQ(e.source, agent.source);
        EXPECT_EQ(e.exclusive, bucketsOf(first));
        EXPECT_EQ(e.granularity, UsageGranularity::sessionAggregate);
        EXPECT_EQ(e.usagePrecision, UsagePrecision::derivedExact);
        EXPECT_FALSE(e.sessionID.empty());
        EXPECT_EQ(e.cwdHash, Privacy::cwdHash("/home/u/app"));
        EXPECT_FALSE(a.result.formatChanged);
        EXPECT_EQ(a.result.checkpoint.source, agent.source);

        // Nothing changed: nothing new.
        EXPECT_TRUE(scan(agent.reader, file, a.result.checkpoint).events.empty());

        // Growth: only the difference, under a new identity.
        agent.set(dir.path(), grown);
        const auto b = scan(agent.reader, file, a.result.checkpoint);
        ASSERT_EQ(b.events.size(), 1u);
        EXPECT_EQ(b.events[0].exclusive, bucketsOf(minus(grown, first)));
        EXPECT_NE(b.events[0].id, e.id);
        // Read again from the same checkpoint (a scan that was not committed): same event.
        const auto again = scan(agent.reader, file, a.result.checkpoint);
        ASSERT_EQ(again.events.size(), 1u);
        EXPECT_EQ(again.events[0].id, b.events[0].id);
        EXPECT_EQ(again.events[0].exclusive, b.events[0].exclusive);

        // The agent reset its counters: no negative usage, and the next growth counts from the
        // new, lower totals.
        const Totals reset = forAgent(agent, {100, 0, 0, 10});
        const Totals afterReset = forAgent(agent, {400, 700, 50, 90});
        agent.set(dir.path(), reset);
        const auto c = scan(agent.reader, file, b.result.checkpoint);
        EXPECT_TRUE(c.events.empty());
        agent.set(dir.path(), afterReset);
        const auto d = scan(agent.reader, file, c.result.checkpoint);
        ASSERT_EQ(d.events.size(), 1u);
        EXPECT_EQ(d.events[0].exclusive, bucketsOf(minus(afterReset, reset)));
    }
}

struct FileState {
    std::string bytes;
    int64_t mtimeNs = 0;
    bool operator==(const FileState&) const = default;
};

FileState stateOf(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    FileState s{std::string(std::istreambuf_iterator<char>(in), {}), 0};
    struct stat st {};
    ::stat(path.c_str(), &st);
    s.mtimeNs = static_cast<int64_t>(st.st_mtim.tv_sec) * 1'000'000'000 + st.st_mtim.tv_nsec;
    return s;
}

TEST(CumulativeReaders, StoresAreLeftExactlyAsTheyWere) {
    for (const auto& agent : agents()) {
        SCOPED_TRACE(agent.name);
        TempDir dir;
        const auto file = agent.set(dir.path(), {10, 20, 30, 40});
        const auto before = stateOf(file);
        const auto entriesBefore = std::distance(fs::directory_iterator(file.parent_path()), {});
        EXPECT_EQ(scan(agent.reader, file).events.size(), 1u);
        EXPECT_EQ(stateOf(file), before);
        // No journal or WAL left behind either.
        EXPECT_EQ(std::distance(fs::directory_iterator(file.parent_path()), {}), entriesBefore);
    }
}

TEST(CumulativeReaders, UnreadableDatabasesAreErrorsWithoutWaiting) {
    struct Case {
        std::string name;
        SourceReader reader;
        std::string fileName;
        std::function<void(const fs::path&)> create;
    };
    const std::vector<Case> cases{
        {"goose", GooseReader::reader(), "sessions.db",
         [](const fs::path& p) { corpus::createGooseDB(p); }},
        {"hermes", HermesReader::reader(), "state.db",
         [](const fs::path& p) { corpus::createHermesDB(p); }},
        {"zed", ZedReader::reader(), "threads.db",
         [](const fs::path& p) { corpus::createZedDB(p); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        const auto notSQLite = dir.write("other/" + c.fileName, std::string(4096, 'x'));
        const auto foreign = c.reader.ingest(contextFor(notSQLite));
        ASSERT_FALSE(foreign.has_value());
        EXPECT_EQ(foreign.error().path, notSQLite.string());
        EXPECT_EQ(foreign.error().sqliteCode, SQLITE_NOTADB);

        const auto locked = dir / c.fileName;
        c.create(locked);
        sqlite3* writer = nullptr;
        ASSERT_EQ(sqlite3_open(locked.c_str(), &writer), SQLITE_OK);
        ASSERT_EQ(sqlite3_exec(writer, "BEGIN EXCLUSIVE;", nullptr, nullptr, nullptr), SQLITE_OK);
        const auto start = std::chrono::steady_clock::now();
        const auto busy = c.reader.ingest(contextFor(locked));
        ASSERT_FALSE(busy.has_value());
        EXPECT_EQ(busy.error().sqliteCode, SQLITE_BUSY);
        EXPECT_NE(busy.error().description().find(locked.string()), std::string::npos);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
        sqlite3_exec(writer, "ROLLBACK;", nullptr, nullptr, nullptr);
        sqlite3_close(writer);
    }
}

// ---- goose

TEST(GooseReaderTest, SessionInDatabaseAndLegacyFileIsCountedOnce) {
    TempDir dir;
    const auto folder = dir / "sessions";
    const auto db = folder / "sessions.db";
    corpus::createGooseDB(db);
    const corpus::GooseSession imported{
        "20250101_1", "claude-sonnet-4-5", "anthropic", "/w/a", "2025-01-01 10:00:00", 1200, 1000,
        200};
    const corpus::GooseSession legacyOnly{"20250101_2", "", "", "/w/b", "", 77, 70, 7};
    corpus::putGooseSession(db, imported);
    corpus::writeGooseLegacyFile(folder, imported);
    corpus::writeGooseLegacyFile(folder, legacyOnly);

    const auto reader = GooseReader::reader();
    std::vector<fs::path> expected{folder / "20250101_1.jsonl", folder / "20250101_2.jsonl", db};
    std::vector<FileError> errors;
    EXPECT_EQ(reader.discover(dir.path(), &errors), expected);
    // A GOOSE_PATH_ROOT keeps the same folder below "data"; other folders' files are not goose's.
    TempDir pathRoot;
    corpus::createGooseDB(pathRoot / "data/sessions/sessions.db");
    pathRoot.write("data/sessions/archive/old.jsonl", "{}\n");
    EXPECT_EQ(reader.discover(pathRoot.path(), &errors),
              std::vector<fs::path>{pathRoot / "data/sessions/sessions.db"});
    EXPECT_TRUE(errors.empty());

    const auto importedFile = scan(reader, folder / "20250101_1.jsonl");
    EXPECT_TRUE(importedFile.events.empty());
    EXPECT_EQ(importedFile.result.stats.withoutUsage, 1);
    const auto legacy = scan(reader, folder / "20250101_2.jsonl");
    ASSERT_EQ(legacy.events.size(), 1u);
    EXPECT_EQ(legacy.events[0].exclusive, (ExclusiveTokens{70, 0, 0, 7, 0}));
    EXPECT_EQ(legacy.events[0].sessionID, "20250101_2");
    const auto fromDB = scan(reader, db);
    ASSERT_EQ(fromDB.events.size(), 1u);
    EXPECT_EQ(fromDB.events[0].sessionID, "20250101_1");

    // A legacy file read before goose imported it: the database's first reading of the same
    // totals has the same identity, so the ledger keeps one.
    corpus::putGooseSession(db, legacyOnly);
    const auto afterImport = scan(reader, db, fromDB.result.checkpoint);
    ASSERT_EQ(afterImport.events.size(), 1u);
    EXPECT_EQ(afterImport.events[0].id, legacy.events[0].id);
}

TEST(GooseReaderTest, ReadsEveryColumnSetAndTimeSpelling) {
    struct Case {
        std::string name;
        bool modern;
        std::string updatedAt;
        std::optional<double> trustedTime;  // absent: the database's own time, inferred
        std::string model;
    };
    const std::vector<Case> cases{
        {"space-separated UTC", true, "2025-01-01 10:00:00", 1735725600.0, "gpt-5"},
        {"RFC 3339 with offset", true, "2025-01-01T12:00:00+02:00", 1735725600.0, "gpt-5"},
        {"unreadable time", true, "yesterday", std::nullopt, "gpt-5"},
        {"early schema", false, "", std::nullopt, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        const auto db = dir / "sessions/sessions.db";
        corpus::createGooseDB(db, c.modern);
        corpus::putGooseSession(db, {"s1", c.model, "openai", "/w", c.updatedAt, 30, 20, 10});
        const auto r = scan(GooseReader::reader(), db);
        ASSERT_EQ(r.events.size(), 1u);
        const auto& e = r.events[0];
        EXPECT_EQ(e.model, c.model);
        EXPECT_EQ(e.providerTotal, 30);
        if (c.trustedTime) {
            EXPECT_EQ(e.timeQuality, ObservationTimeQuality::trusted);
            EXPECT_DOUBLE_EQ(e.occurredAt, *c.trustedTime);
        } else {
            EXPECT_EQ(e.timeQuality, ObservationTimeQuality::inferred);
            EXPECT_GT(e.occurredAt, 1.7e9);  // the file's modification time, i.e. now
        }
    }
}

TEST(GooseReaderTest, UnusableRowsAreSkippedAndCounted) {
    TempDir dir;
    const auto db = dir / "sessions/sessions.db";
    corpus::createGooseDB(db);
    corpus::putGooseSession(db, {"fresh", "gpt-5", "openai", "/w", "", {}, {}, {}});
    corpus::putGooseSession(db, {"good", "claude-opus-4-1", "anthropic", "/w", "", 9, 6, 3});
    corpus::FixtureDB writer(db);
    writer.exec(
        "INSERT INTO sessions (id, accumulated_total_tokens, accumulated_input_tokens, "
        "accumulated_output_tokens) VALUES ('text', 'many', 1, 1), ('huge', 1, 2000000000000, 1), "
        "('negative', 1, -5, 1)");
    const auto r = scan(GooseReader::reader(), db);
    ASSERT_EQ(r.events.size(), 1u);
    EXPECT_EQ(r.events[0].sessionID, "good");
    // The cache split of Anthropic input is unknown and said so.
    ASSERT_TRUE(r.events[0].rawExtras);
    EXPECT_EQ(nlohmann::json::parse(*r.events[0].rawExtras)["inputIncludesCache"], true);
    EXPECT_EQ(r.result.stats.withoutUsage, 1);
    EXPECT_EQ(r.result.stats.malformed, 3);

    // A database of another shape says so rather than reading as empty.
    const auto other = dir / "other/sessions/sessions.db";
    corpus::FixtureDB(other).exec("CREATE TABLE sessions (id TEXT, tokens INTEGER)");
    EXPECT_TRUE(scan(GooseReader::reader(), other).result.formatChanged);
}

// ---- Hermes

TEST(HermesReaderTest, PrefersPerModelCountersAndFallsBackToSessionRows) {
    TempDir dir;
    const auto db = dir / "state.db";
    corpus::createHermesDB(db);
    // s1 has per-model rows (a main model and a side task); s2 predates them.
    corpus::putHermesSession(db, {"s1", "anthropic/claude-sonnet-4.5", 100.0, 200.0, "openrouter",
                                  "/w", 1100, 550, 4000, 10, 300});
    corpus::putHermesModelUsage(db, {"s1", "anthropic/claude-sonnet-4.5", "openrouter", "", 1000,
                                     500, 4000, 10, 300, 100.0, 190.0});
    corpus::putHermesModelUsage(db, {"s1", "google/gemini-2.5-flash", "openrouter", "title", 100,
                                     50, 0, 0, 0, 101.0, 102.0});
    corpus::putHermesSession(db,
                             {"s2", "gpt-5", 300.0, std::nullopt, "openai", "/w", 70, 7, 0, 0, 5});
    // A session without usage yields nothing.
    corpus::putHermesSession(db, {"s3", "gpt-5", 400.0, std::nullopt, "", "", 0, 0, 0, 0, 0});

    const auto r = scan(HermesReader::reader(), db);
    ASSERT_EQ(r.events.size(), 3u);
    std::map<std::string, UsageEvent> byModel;
    for (const auto& e : r.events) {
        byModel[e.model] = e;
    }
    const auto& main = byModel.at("anthropic/claude-sonnet-4.5");
    // input excludes the cache; reasoning is inside output and not billed again.
    EXPECT_EQ(main.exclusive, (ExclusiveTokens{1000, 4000, 10, 500, 0}));
    EXPECT_EQ(main.provider, "anthropic");
    EXPECT_EQ(main.timeQuality, ObservationTimeQuality::trusted);
    EXPECT_DOUBLE_EQ(main.occurredAt, 190.0);
    EXPECT_EQ(main.cwdHash, Privacy::cwdHash("/w"));
    const auto& side = byModel.at("google/gemini-2.5-flash");
    EXPECT_EQ(side.exclusive, (ExclusiveTokens{100, 0, 0, 50, 0}));
    EXPECT_EQ(nlohmann::json::parse(*side.rawExtras)["task"], "title");
    const auto& fallback = byModel.at("gpt-5");
    EXPECT_EQ(fallback.sessionID, "s2");
    EXPECT_EQ(fallback.exclusive, (ExclusiveTokens{70, 0, 0, 7, 0}));
    // A running session has no time of its own: the database's, marked as inferred.
    EXPECT_EQ(fallback.timeQuality, ObservationTimeQuality::inferred);

    // Only the side task grows: one event for it alone.
    corpus::putHermesModelUsage(db, {"s1", "google/gemini-2.5-flash", "openrouter", "title", 160,
                                     80, 0, 0, 0, 101.0, 250.0});
    const auto next = scan(HermesReader::reader(), db, r.result.checkpoint);
    ASSERT_EQ(next.events.size(), 1u);
    EXPECT_EQ(next.events[0].exclusive, (ExclusiveTokens{60, 0, 0, 30, 0}));
}

TEST(HermesReaderTest, SessionMeteredBeforePerModelRowsKeepsBeingMeteredByItsRow) {
    TempDir dir;
    const auto db = dir / "state.db";
    corpus::createHermesDB(db, {.optionalColumns = true, .modelUsageTable = false});
    corpus::putHermesSession(db, {"s1", "gpt-5", 1.0, std::nullopt, "", "", 100, 10, 0, 0, 0});
    const auto first = scan(HermesReader::reader(), db);
    ASSERT_EQ(first.events.size(), 1u);

    // Hermes is upgraded: the table appears and the same session gets per-model rows.
    corpus::FixtureDB(db).exec(
        "CREATE TABLE session_model_usage (session_id TEXT, model TEXT, billing_provider TEXT "
        "DEFAULT '', billing_base_url TEXT DEFAULT '', billing_mode TEXT DEFAULT '', task TEXT "
        "DEFAULT '', input_tokens INTEGER, output_tokens INTEGER, cache_read_tokens INTEGER, "
        "cache_write_tokens INTEGER, reasoning_tokens INTEGER, first_seen REAL, last_seen REAL)");
    corpus::FixtureDB(db).exec(
        "INSERT INTO session_model_usage (session_id, model, input_tokens, output_tokens) VALUES "
        "('s1', 'gpt-5', 150, 15)");
    corpus::putHermesSession(db, {"s1", "gpt-5", 1.0, std::nullopt, "", "", 150, 15, 0, 0, 0});
    const auto second = scan(HermesReader::reader(), db, first.result.checkpoint);
    ASSERT_EQ(second.events.size(), 1u);
    EXPECT_EQ(second.events[0].exclusive, (ExclusiveTokens{50, 0, 0, 5, 0}));
}

TEST(HermesReaderTest, ReadsWithoutOptionalColumnsAndFindsProfiles) {
    TempDir dir;
    const auto db = dir / "profiles/work/state.db";
    corpus::createHermesDB(db, {.optionalColumns = false, .modelUsageTable = false});
    corpus::putHermesSession(db, {"s1", "gpt-5", 1.0, 2.0, "ignored", "/ignored", 40, 4, 3, 2, 1});
    corpus::createHermesDB(dir / "state.db");
    std::vector<FileError> errors;
    EXPECT_EQ(HermesReader::reader().discover(dir.path(), &errors),
              (std::vector<fs::path>{dir / "profiles/work/state.db", dir / "state.db"}));

    const auto r = scan(HermesReader::reader(), db);
    ASSERT_EQ(r.events.size(), 1u);
    EXPECT_EQ(r.events[0].exclusive, (ExclusiveTokens{40, 3, 2, 4, 0}));
    EXPECT_FALSE(r.events[0].cwdHash);
    EXPECT_FALSE(r.events[0].rawExtras);
    EXPECT_EQ(r.events[0].timeQuality, ObservationTimeQuality::inferred);
}

// ---- Zed

std::vector<unsigned char> bytes(const std::string& text) {
    return {text.begin(), text.end()};
}

TEST(ZedReaderTest, ReadsJsonAndZstdThreadsAndSkipsWhatItCannotRead) {
    TempDir dir;
    const auto db = dir / "threads.db";
    corpus::createZedDB(db);
    corpus::ZedThreadJSON metered;
    metered.cumulative = corpus::ZedUsage{100, 20, 5, 1000};
    corpus::ZedThreadJSON imported = metered;
    imported.imported = true;
    corpus::ZedThreadJSON oldWithTotals = metered;
    oldWithTotals.legacy = true;
    corpus::ZedThreadJSON oldWithout;
    oldWithout.legacy = true;
    auto cutFrame = corpus::zstdFrame(corpus::zedThreadText(metered));
    cutFrame.resize(cutFrame.size() / 2);
    const std::string t = "2026-08-21T10:00:00Z";

    corpus::putZedThread(db, "json", t, "json", bytes(corpus::zedThreadText(metered)), "/w/a");
    corpus::putZedThread(db, "zstd", t, "zstd", corpus::zstdFrame(corpus::zedThreadText(metered)));
    corpus::putZedThread(db, "old", t, "json", bytes(corpus::zedThreadText(oldWithTotals)));
    corpus::putZedThread(db, "imported", t, "zstd",
                         corpus::zstdFrame(corpus::zedThreadText(imported)));
    corpus::putZedThread(db, "no-totals", t, "json", bytes(corpus::zedThreadText(oldWithout)));
    corpus::putZedThread(db, "cut", t, "zstd", cutFrame);
    corpus::putZedThread(db, "garbage", t, "zstd", bytes("not a frame at all"));
    corpus::putZedThread(db, "bincode", t, "bincode", bytes("{}"));
    corpus::putZedThread(db, "not-json", t, "json", bytes("{\"messages\": ["));
    corpus::putZedThread(db, "bad-usage", t, "json",
                         bytes(R"({"cumulative_token_usage": {"input_tokens": "many"}})"));

    const auto read = ZedReader::read(contextFor(db));
    ASSERT_TRUE(read.has_value());
    const auto& out = *read;
    const std::vector<std::string> skipped{
        std::string(ZedReader::kDamagedZstd) + ": cut",
        std::string(ZedReader::kDamagedZstd) + ": garbage",
        std::string(ZedReader::kUnsupportedDataType) + ": bincode",
        std::string(ZedReader::kNotThreadJSON) + ": not-json",
        std::string(ZedReader::kUnreadableUsage) + ": bad-usage",
    };
    EXPECT_EQ(out.skipped, skipped);
    EXPECT_EQ(out.result.stats.malformed, 5);
    EXPECT_EQ(out.result.stats.withoutUsage, 2);  // imported, and no totals

    const auto r = scan(ZedReader::reader(), db);
    ASSERT_EQ(r.events.size(), 3u);
    std::vector<std::string> sessions;
    for (const auto& e : r.events) {
        sessions.push_back(e.sessionID);
        EXPECT_EQ(e.exclusive, (ExclusiveTokens{100, 1000, 5, 20, 0}));
        EXPECT_EQ(e.model, "claude-sonnet-4-5");
        EXPECT_EQ(e.provider, "anthropic");
        EXPECT_EQ(e.timeQuality, ObservationTimeQuality::trusted);
        EXPECT_DOUBLE_EQ(e.occurredAt, 1787306400.0);
    }
    EXPECT_EQ(sessions, (std::vector<std::string>{"json", "zstd", "old"}));
    EXPECT_EQ(r.events[0].cwdHash, Privacy::cwdHash("/w/a"));
}

TEST(ZedReaderTest, ThreadsAboveTheSizeLimitAreSkipped) {
    TempDir dir;
    const auto db = dir / "threads.db";
    corpus::createZedDB(db, /*optionalColumns=*/false);
    corpus::ZedThreadJSON big;
    big.cumulative = corpus::ZedUsage{1, 1, 0, 0};
    big.messages = 20;
    big.messageBytes = 500;
    corpus::ZedThreadJSON small = big;
    small.messages = 1;
    small.messageBytes = 10;
    const auto bigText = corpus::zedThreadText(big);
    ASSERT_GT(bigText.size(), 8'000u);
    ASSERT_LT(corpus::zedThreadText(small).size(), 4'000u);
    const std::string t = "2026-08-21T10:00:00Z";
    corpus::putZedThread(db, "big-json", t, "json", bytes(bigText));
    // Compressed far below the limit, but not once decompressed.
    corpus::putZedThread(db, "big-zstd", t, "zstd", corpus::zstdFrame(bigText));
    corpus::putZedThread(db, "small", t, "zstd", corpus::zstdFrame(corpus::zedThreadText(small)));

    int events = 0;
    auto context = contextFor(db);
    context.sink = [&](UsageEvent&&) { ++events; };
    const auto read = ZedReader::read(context, {.maxThreadJSONBytes = 4'000});
    ASSERT_TRUE(read.has_value());
    const auto& out = *read;
    EXPECT_EQ(events, 1);
    EXPECT_EQ(out.skipped,
              (std::vector<std::string>{std::string(ZedReader::kJSONTooLarge) + ": big-json",
                                        std::string(ZedReader::kJSONTooLarge) + ": big-zstd"}));
    EXPECT_EQ(out.result.stats.malformed, 2);
    // The real limit leaves ordinary threads alone.
    EXPECT_EQ(scan(ZedReader::reader(), db).events.size(), 3u);
}

TEST(ZstdDecompressTest, WholeFramesWithinTheLimitOnly) {
    const std::string text(300'000, 'z');  // larger than one output chunk of the decoder
    const auto frame = corpus::zstdFrame(text);
    auto twoFrames = corpus::zstdFrame("ab");
    const auto second = corpus::zstdFrame("cd");
    twoFrames.insert(twoFrames.end(), second.begin(), second.end());
    auto cut = frame;
    cut.resize(cut.size() - 3);
    using F = Zstd::DecompressFailure;
    struct Case {
        std::string name;
        std::vector<unsigned char> data;
        std::size_t limit;
        std::expected<std::string, F> expected;
    };
    const std::vector<Case> cases{
        {"exactly at the limit", frame, text.size(), text},
        {"one byte over", frame, text.size() - 1, std::unexpected(F::tooLarge)},
        {"frames in a row", twoFrames, 10, std::string("abcd")},
        {"cut off", cut, text.size(), std::unexpected(F::damaged)},
        {"empty", {}, 10, std::unexpected(F::damaged)},
        {"not zstd", bytes("{\"json\": true}"), 100, std::unexpected(F::damaged)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(Zstd::decompress(c.data, c.limit), c.expected);
    }
}

// ---- droid

TEST(DroidReaderTest, MetersOwnUsageOnlyAndFindsTheWorkingDirectory) {
    TempDir dir;
    const corpus::DroidTotals own{100, 20, 30, 400, 5};
    const corpus::DroidTotals inclusive{900, 200, 300, 4000, 50};
    const auto withTranscript = corpus::writeDroidSettings(
        dir.path(), "-home-u-my-app", "a", "claude-sonnet-4-5", own, inclusive, "/home/u/my-app");
    const auto withoutTranscript =
        corpus::writeDroidSettings(dir.path(), "-home-u-tool", "b", "custom:kimi-k2", own);
    const auto flat = corpus::writeDroidSettings(dir.path(), "", "c", "gpt-5", own);
    std::vector<FileError> errors;
    EXPECT_EQ(DroidReader::reader().discover(dir.path(), &errors),
              (std::vector<fs::path>{withTranscript, withoutTranscript, flat}));

    const auto a = scan(DroidReader::reader(), withTranscript);
    ASSERT_EQ(a.events.size(), 1u);
    // inclusiveTokenUsage counts the sub-sessions again: only tokenUsage is read; the counters
    // are independent, thinking included.
    EXPECT_EQ(a.events[0].exclusive, (ExclusiveTokens{100, 400, 30, 20, 5}));
    EXPECT_EQ(a.events[0].sessionID, "a");
    EXPECT_EQ(a.events[0].cwdHash, Privacy::cwdHash("/home/u/my-app"));
    // The document's own modification time is when its totals were written: a ledger event.
    EXPECT_EQ(a.events[0].timeQuality, ObservationTimeQuality::trusted);

    const auto b = scan(DroidReader::reader(), withoutTranscript);
    ASSERT_EQ(b.events.size(), 1u);
    EXPECT_EQ(b.events[0].model, "custom:kimi-k2");
    EXPECT_EQ(b.events[0].cwdHash, Privacy::cwdHash("/home/u/tool"));  // from the folder name

    const auto c = scan(DroidReader::reader(), flat);
    ASSERT_EQ(c.events.size(), 1u);
    EXPECT_FALSE(c.events[0].cwdHash);
}

TEST(DroidReaderTest, DocumentsWithoutReadableUsage) {
    struct Case {
        std::string name;
        std::string text;
        int64_t malformed, withoutUsage;
        bool formatChanged;
    };
    const std::vector<Case> cases{
        {"caught mid-rewrite", R"({"model": "gpt-5", "tokenUs)", 1, 0, false},
        {"new session", R"({"model": "gpt-5"})", 0, 1, false},
        {"counts as text", R"({"tokenUsage": {"inputTokens": "12"}})", 1, 0, true},
        {"usage not an object", R"({"tokenUsage": [1, 2]})", 1, 0, true},
        {"count out of range", R"({"tokenUsage": {"outputTokens": 1e15}})", 1, 0, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        const auto file = dir.write("sessions/-w/x.settings.json", c.text);
        const auto r = scan(DroidReader::reader(), file);
        EXPECT_TRUE(r.events.empty());
        EXPECT_EQ(r.result.stats.malformed, c.malformed);
        EXPECT_EQ(r.result.stats.withoutUsage, c.withoutUsage);
        EXPECT_EQ(r.result.formatChanged, c.formatChanged);
    }
}

// ---- the benchmark homes

TEST(CumulativeCorpus, HomesHoldTheEventsTheirWritersAnnounce) {
    TempDir home;
    struct Case {
        std::string name;
        SourceReader reader;
        fs::path root;
        int64_t expected;
    };
    const std::vector<Case> cases{
        {"goose", GooseReader::reader(), home / ".local/share/goose",
         corpus::writeGooseHome(home.path(), 16, 7)},
        {"hermes", HermesReader::reader(), home / ".hermes",
         corpus::writeHermesHome(home.path(), 8, 7)},
        {"zed", ZedReader::reader(), home / ".local/share/zed/threads",
         corpus::writeZedHome(home.path(), 20, 4, 7)},
        {"droid", DroidReader::reader(), home / ".factory",
         corpus::writeDroidHome(home.path(), 10, 4, 7)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<FileError> errors;
        int64_t events = 0;
        for (const auto& file : c.reader.discover(c.root, &errors)) {
            events += static_cast<int64_t>(scan(c.reader, file).events.size());
        }
        EXPECT_TRUE(errors.empty());
        EXPECT_GT(c.expected, 0);
        EXPECT_EQ(events, c.expected);
    }
}

}  // namespace
}  // namespace kestrel
