// The per-message SQLite store readers: Kiro CLI, Cursor, Qoder / TRAE, AnythingLLM, Z Code.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "core/model/privacy.hpp"
#include "core/model/token_semantics.hpp"
#include "core/sources/agent_catalog.hpp"
#include "core/sources/readonly_sqlite.hpp"
#include "core/sources/source_readers.hpp"
#include "core/sources/stores/anythingllm_reader.hpp"
#include "core/sources/stores/chat_message_reader.hpp"
#include "core/sources/stores/cursor_reader.hpp"
#include "core/sources/stores/generic_statements.hpp"
#include "core/sources/stores/kiro_reader.hpp"
#include "core/sources/stores/zcode_reader.hpp"
#include "tests/support/temp_dir.hpp"
#include "tools/agent_corpus/store_corpus.hpp"

namespace kestrel {
namespace {

namespace fs = std::filesystem;
namespace cs = corpus::stores;
using corpus::FixtureDB;
using test_support::TempDir;

// The registered reader of `source` on one store, its events collected.
std::expected<IngestResult, FileError> tryStore(AgentSource source, const fs::path& database,
                                                const std::optional<SourceCheckpoint>& cp = {}) {
    SourceReadContext context;
    context.source = source;
    context.file = database;
    context.checkpoint = cp;
    return SourceReaders::collect(SourceReaders::reader(source)->ingest, std::move(context));
}

IngestResult readStore(AgentSource source, const fs::path& database,
                       const std::optional<SourceCheckpoint>& cp = {}) {
    auto result = tryStore(source, database, cp);
    EXPECT_TRUE(result.has_value()) << (result ? "" : result.error().description());
    return result ? std::move(*result) : IngestResult{};
}

using Ingest = std::function<IngestResult(const fs::path&, const std::optional<SourceCheckpoint>&)>;

Ingest ingestOf(AgentSource source) {
    return [source](const fs::path& p, const std::optional<SourceCheckpoint>& c) {
        return readStore(source, p, c);
    };
}

std::vector<fs::path> discoverOf(AgentSource source, const fs::path& root) {
    switch (source) {
        case AgentSource::kiro:
            return KiroReader::discover(root);
        case AgentSource::cursor:
            return CursorReader::discover(root);
        case AgentSource::anythingLLM:
            return AnythingLLMReader::discover(root);
        case AgentSource::zcode:
            return ZCodeReader::discover(root);
        default:
            return ChatMessageReader::discover(root);
    }
}

std::set<std::string> idsOf(const IngestResult& r) {
    std::set<std::string> ids;
    for (const auto& e : r.events) {
        ids.insert(e.id);
    }
    return ids;
}

std::string fileBytes(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

int64_t mtimeNs(const fs::path& path) {
    struct stat st {};
    ::stat(path.c_str(), &st);
    return int64_t{st.st_mtim.tv_sec} * 1'000'000'000 + st.st_mtim.tv_nsec;
}

// ---------------------------------------------------------------------------------------------
// What every reader must do, run against each agent's realistic home.

struct StoreCase {
    const char* name;
    AgentSource source;
    // Writes a small home; returns the database and the events it holds.
    std::function<std::pair<fs::path, int64_t>(const fs::path& home)> write;
    fs::path root;  // below the home: the root the catalogue hands to discover()
    // Adds usage to the database; returns how many new events it holds.
    std::function<int64_t(const fs::path& database)> grow;
};

std::vector<StoreCase> storeCases() {
    return {
        {"Kiro", AgentSource::kiro,
         [](const fs::path& home) {
             return std::pair(cs::writeKiroHome(home, 4, 3, 11), cs::kiroExpectedEvents(4, 3));
         },
         ".local/share/kiro-cli",
         [](const fs::path& db) {
             FixtureDB f(db);
             // A new conversation, and an old one grown by two requests.
             cs::KiroRequest a{.requestID = "new-1",
                               .startMs = 1790000000000,
                               .promptBytes = 80,
                               .responseBytes = 400};
             cs::putKiroConversation(f, "/home/dev/other", "conv-new", {a}, 1790000001000);
             std::vector<cs::KiroRequest> grown;
             for (int i = 0; i < 5; ++i) {
                 cs::KiroRequest r{.requestID = "conv-11-0-req-" + std::to_string(i),
                                   .startMs = 1790000000000 + i,
                                   .promptBytes = 100,
                                   .responseBytes = 100};
                 grown.push_back(r);
             }
             cs::putKiroConversation(f, "/home/dev/project-0", "conv-11-0", grown, 1790000002000);
             return int64_t{3};
         }},
        {"Cursor", AgentSource::cursor,
         [](const fs::path& home) {
             return std::pair(cs::writeCursorHome(home, 3, 8, 5), cs::cursorExpectedEvents(3, 8));
         },
         ".config/Cursor/User/globalStorage",
         [](const fs::path& db) {
             FixtureDB f(db);
             cs::putCursorValue(f, "bubbleId:cmp-5-0:late",
                                cs::cursorBubbleJSON(2, 1790000000000, 10, 20));
             cs::putCursorValue(f, "bubbleId:cmp-5-0:late-user",
                                cs::cursorBubbleJSON(1, 1790000000000, 0, 0));
             return int64_t{1};
         }},
        {"Qoder", AgentSource::qoder,
         [](const fs::path& home) {
             return std::pair(cs::writeChatHome(AgentSource::qoder, home, 3, 5, 7),
                              cs::chatExpectedEvents(3, 5));
         },
         ".config/Qoder/SharedClientCache/cache/db",
         [](const fs::path& db) {
             FixtureDB f(db);
             cs::putChatMessage(f, {}, "late-a", "s-7-0", "late", "assistant",
                                R"({"input_tokens":5,"output_tokens":6})", 1790000000000);
             cs::putChatMessage(f, {}, "late-b", "s-7-0", "late", "assistant", "{}", 1790000000000);
             return int64_t{1};
         }},
        {"QoderCN", AgentSource::qoderCN,
         [](const fs::path& home) {
             return std::pair(cs::writeChatHome(AgentSource::qoderCN, home, 2, 6, 8),
                              cs::chatExpectedEvents(2, 6));
         },
         ".config/QoderCN/SharedClientCache/cache/db",
         [](const fs::path& db) {
             FixtureDB f(db);
             cs::putChatMessage(f, {}, "late-a", "s-8-1", "late", "assistant",
                                R"({"prompt_tokens":50,"completion_tokens":6})", 1790000000000);
             return int64_t{1};
         }},
        {"TraeWorkCN", AgentSource::traeWorkCN,
         [](const fs::path& home) {
             return std::pair(cs::writeChatHome(AgentSource::traeWorkCN, home, 2, 5, 9),
                              cs::chatExpectedEvents(2, 5));
         },
         ".config/TRAE SOLO CN",
         [](const fs::path& db) {
             FixtureDB f(db);
             cs::putChatMessage(f, {}, "late-a", "s-9-0", "late", "assistant",
                                R"({"inputTokens":5,"outputTokens":6})", 1790000000000);
             cs::putChatMessage(f, {}, "late-u", "s-9-0", "late", "user",
                                R"({"inputTokens":5,"outputTokens":6})", 1790000000000);
             return int64_t{1};
         }},
        {"AnythingLLM", AgentSource::anythingLLM,
         [](const fs::path& home) {
             return std::pair(cs::writeAnythingLLMHome(home, 2, 13, 3),
                              cs::anythingLLMExpectedEvents(2, 13));
         },
         ".config/anythingllm-desktop/storage",
         [](const fs::path& db) {
             FixtureDB f(db);
             cs::putAnythingLLMChat(f, 1, std::nullopt, cs::anythingLLMResponseJSON(9, 9, "gpt-4o"),
                                    int64_t{1790000000000}, true);
             cs::putAnythingLLMChat(f, 2, 4, cs::anythingLLMResponseJSON(9, 9, ""),
                                    int64_t{1790000000000}, false);
             return int64_t{2};
         }},
        {"ZCode", AgentSource::zcode,
         [](const fs::path& home) {
             return std::pair(cs::writeZCodeHome(home, 3, 4, 2), cs::zcodeExpectedEvents(3, 4));
         },
         ".zcode",
         [](const fs::path& db) {
             FixtureDB f(db);
             // The request that was running completes; one more is added.
             f.exec(
                 "UPDATE model_usage SET status = 'completed', completed_at = 1790000000000 "
                 "WHERE status = 'running' AND session_id = 'ses_2_0'");
             cs::ZCodeUsage u{.id = "ses_2_1_late",
                              .sessionID = "ses_2_1",
                              .input = 10,
                              .output = 5,
                              .startedMs = 1790000000000,
                              .completedMs = 1790000000500};
             cs::putZCodeUsage(f, u);
             return int64_t{2};
         }},
    };
}

class StoreReaderContract : public ::testing::TestWithParam<StoreCase> {};

TEST_P(StoreReaderContract, ReadsTheRealisticHomeFoundFromItsRoot) {
    const auto& c = GetParam();
    TempDir home;
    const auto [database, expected] = c.write(home.path());
    EXPECT_EQ(discoverOf(c.source, home / c.root), std::vector<fs::path>{database});

    const auto result = ingestOf(c.source)(database, std::nullopt);
    EXPECT_EQ(static_cast<int64_t>(result.events.size()), expected);
    EXPECT_EQ(idsOf(result).size(), result.events.size()) << "event ids must be unique";
    EXPECT_FALSE(result.formatChanged);
    EXPECT_EQ(result.stats.malformed, 0);
    for (const auto& e : result.events) {
        EXPECT_EQ(e.source, c.source);
        EXPECT_FALSE(e.model.empty());
        EXPECT_FALSE(e.sessionID.empty());
        EXPECT_GT(e.exclusive.billedTokens(), 0) << e.id;
        EXPECT_EQ(e.granularity, UsageGranularity::request);
        EXPECT_EQ(e.timeQuality, ObservationTimeQuality::trusted) << e.id;
        EXPECT_GT(e.occurredAt, 1.7e9);
        EXPECT_TRUE(e.id.starts_with(std::string(rawValue(c.source)) + ":")) << e.id;
    }
    EXPECT_EQ(result.checkpoint.source, c.source);
    EXPECT_TRUE(result.checkpoint.logicalHighWater.has_value());
}

TEST_P(StoreReaderContract, ResumesWithOnlyNewRowsAndNothingWhenUnchanged) {
    const auto& c = GetParam();
    TempDir home;
    const auto [database, expected] = c.write(home.path());
    const auto ingest = ingestOf(c.source);
    const auto first = ingest(database, std::nullopt);
    ASSERT_EQ(static_cast<int64_t>(first.events.size()), expected);

    const auto unchanged = ingest(database, first.checkpoint);
    EXPECT_TRUE(unchanged.events.empty());
    EXPECT_EQ(unchanged.checkpoint.logicalHighWater, first.checkpoint.logicalHighWater);

    const int64_t added = c.grow(database);
    const auto second = ingest(database, unchanged.checkpoint);
    EXPECT_EQ(static_cast<int64_t>(second.events.size()), added);
    for (const auto& id : idsOf(second)) {
        EXPECT_FALSE(idsOf(first).contains(id)) << id << " was counted before";
    }
    EXPECT_TRUE(ingest(database, second.checkpoint).events.empty());

    // Read from scratch, the store yields the same identities: the ledger keeps one of each.
    auto all = idsOf(first);
    all.merge(idsOf(second));
    EXPECT_EQ(idsOf(ingest(database, std::nullopt)), all);
}

TEST_P(StoreReaderContract, LeavesTheDatabaseUntouched) {
    const auto& c = GetParam();
    TempDir home;
    const auto database = c.write(home.path()).first;
    const auto bytes = fileBytes(database);
    const auto mtime = mtimeNs(database);
    const auto result = ingestOf(c.source)(database, std::nullopt);
    ingestOf(c.source)(database, result.checkpoint);
    EXPECT_EQ(fileBytes(database), bytes);
    EXPECT_EQ(mtimeNs(database), mtime);
    EXPECT_FALSE(fs::exists(database.string() + "-journal"));
    EXPECT_FALSE(fs::exists(database.string() + "-wal"));
}

// A store that cannot be read is an error value naming it, never an exception.
TEST_P(StoreReaderContract, RefusesFilesThatAreNotSQLiteOrAreLocked) {
    const auto& c = GetParam();
    TempDir home;
    const auto garbage = home.write("garbage.db", std::string(4096, 'x'));
    const auto foreign = tryStore(c.source, garbage);
    ASSERT_FALSE(foreign.has_value());
    EXPECT_EQ(foreign.error().path, garbage.string());
    EXPECT_EQ(foreign.error().sqliteCode, SQLITE_NOTADB);
    const auto missing = tryStore(c.source, home / "missing.db");
    ASSERT_FALSE(missing.has_value());
    EXPECT_EQ(missing.error().operation, "open");
    EXPECT_EQ(missing.error().sqliteCode, SQLITE_CANTOPEN);

    const auto database = c.write(home.path()).first;
    FixtureDB holder(database);
    holder.exec("PRAGMA locking_mode=EXCLUSIVE; BEGIN EXCLUSIVE;");
    const auto start = std::chrono::steady_clock::now();
    const auto locked = tryStore(c.source, database);
    ASSERT_FALSE(locked.has_value());
    EXPECT_EQ(locked.error().sqliteCode, SQLITE_BUSY);
    EXPECT_EQ(locked.error().description(), "cannot " + locked.error().operation + " " +
                                                database.string() + ": database is locked");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
    holder.exec("COMMIT;");
}

// Registered, the reader finds the store from the roots the catalogue gives for a home.
TEST_P(StoreReaderContract, IsRegisteredAndFoundFromTheCatalogueRoots) {
    const auto& c = GetParam();
    TempDir home;
    const auto [database, expected] = c.write(home.path());
    const auto reader = SourceReaders::reader(c.source);
    ASSERT_TRUE(reader.has_value());
    EXPECT_EQ(reader->kind, SourceReaderKind::store);
    std::vector<fs::path> found;
    for (const auto& root : AgentCatalog::installedRoots(c.source, home.path())) {
        std::vector<FileError> errors;
        for (auto& file : reader->discover(root, &errors)) {
            found.push_back(file);
        }
        EXPECT_TRUE(errors.empty());
    }
    ASSERT_EQ(found, std::vector<fs::path>{database});
    std::vector<UsageEvent> streamed;
    SourceReadContext context;
    context.source = c.source;
    context.file = database;
    context.sink = [&](UsageEvent&& e) { streamed.push_back(std::move(e)); };
    const auto result = reader->ingest(context);
    ASSERT_TRUE(result.has_value());
    EXPECT_EQ(static_cast<int64_t>(result->events.size() + streamed.size()), expected);
}

INSTANTIATE_TEST_SUITE_P(PerMessageStores, StoreReaderContract, ::testing::ValuesIn(storeCases()),
                         [](const auto& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------------------------
// Kiro CLI

struct KiroFixture {
    TempDir dir;
    fs::path path = dir / "data.sqlite3";
    FixtureDB db{path};
    KiroFixture() { cs::createKiroSchema(db); }
    IngestResult read(const std::optional<SourceCheckpoint>& cp = std::nullopt) {
        return readStore(AgentSource::kiro, path, cp);
    }
};

TEST(KiroReader, EstimatesFromByteSizesOnlyWhenExactCountsAreMissing) {
    KiroFixture k;
    cs::KiroRequest estimated{.requestID = "r-est",
                              .modelID = "claude-sonnet-4",
                              .startMs = 1780000000000,
                              .promptBytes = 401,
                              .responseBytes = 800};
    cs::KiroRequest exact{.requestID = "r-exact",
                          .modelID = "claude-opus-4.5",
                          .startMs = 1780000005000,
                          .promptBytes = 999,
                          .responseBytes = 999,
                          .uncachedInput = 120,
                          .output = 340,
                          .cacheRead = 5000,
                          .cacheWrite = 60,
                          .total = 5520};
    cs::putKiroConversation(k.db, "/home/dev/shop", "c1", {estimated, exact}, 1780000009000);
    const auto r = k.read();
    ASSERT_EQ(r.events.size(), 2u);

    const auto& e = r.events[0];
    EXPECT_EQ(e.usagePrecision, UsagePrecision::estimateOnly);
    EXPECT_EQ(e.exclusive.inputUncached, 101);  // 401 bytes, rounded up at 4 bytes per token
    EXPECT_EQ(e.exclusive.outputVisible, 200);
    EXPECT_EQ(e.exclusive.cacheRead, 0);
    EXPECT_EQ(e.id, "kiro:c1:r-est:claude-sonnet-4");
    EXPECT_EQ(e.sessionID, "c1");
    EXPECT_EQ(e.cwdHash, Privacy::cwdHash("/home/dev/shop"));
    EXPECT_DOUBLE_EQ(e.occurredAt, 1780000000.0);
    EXPECT_EQ(e.provider, "anthropic");

    const auto& x = r.events[1];
    EXPECT_EQ(x.usagePrecision, UsagePrecision::nativeExact);
    EXPECT_EQ(x.exclusive, (ExclusiveTokens{120, 5000, 60, 340, 0}));
    EXPECT_EQ(x.providerTotal, 5520);
    EXPECT_EQ(x.model, "claude-opus-4.5");
}

TEST(KiroReader, SkipsAndCountsRequestsWithUnreadableCounts) {
    KiroFixture k;
    const std::string value = R"({"conversation_id":"c9","history":[
        {"request_metadata":{"request_id":"a","user_prompt_length":"lots","response_size":10}},
        {"request_metadata":{"request_id":"b","output_tokens":-4}},
        {"request_metadata":{"request_id":"c","user_prompt_length":2e13,"response_size":1}},
        {"request_metadata":{"request_id":"d","user_prompt_length":8,"response_size":8}},
        {"request_metadata":{"request_id":"e","user_prompt_length":0,"response_size":0}},
        {"user":{"content":"no metadata yet"}}]})";
    k.db.run("INSERT INTO conversations_v2 VALUES ('/w', 'c9', ?, 1, 1780000000000)", {value});
    k.db.run("INSERT INTO conversations_v2 VALUES ('/w', 'c10', 'not json', 1, 1780000000001)", {});
    const auto r = k.read();
    ASSERT_EQ(r.events.size(), 1u);
    EXPECT_EQ(r.events[0].id, "kiro:c9:d:kiro-unknown");
    // No time in the request: the row's update time stands in for it.
    EXPECT_EQ(r.events[0].timeQuality, ObservationTimeQuality::inferred);
    EXPECT_DOUBLE_EQ(r.events[0].occurredAt, 1780000000.0);
    EXPECT_EQ(r.stats.malformed, 4);     // three bad requests and the row that is not JSON
    EXPECT_EQ(r.stats.withoutUsage, 2);  // zero sizes, no metadata
    EXPECT_FALSE(r.formatChanged);
}

TEST(KiroReader, RereadsACompactedHistoryUnderTheSameIdentities) {
    KiroFixture k;
    std::vector<cs::KiroRequest> requests;
    for (int i = 0; i < 3; ++i) {
        requests.push_back({.requestID = "q" + std::to_string(i),
                            .startMs = 1780000000000 + i,
                            .promptBytes = 40,
                            .responseBytes = 40});
    }
    cs::putKiroConversation(k.db, "/w", "c1", requests, 1780000001000);
    const auto first = k.read();
    ASSERT_EQ(first.events.size(), 3u);
    // The agent replaced the history by its last request plus a new one.
    cs::putKiroConversation(
        k.db, "/w", "c1",
        {requests[2],
         {.requestID = "q3", .startMs = 1780000000009, .promptBytes = 40, .responseBytes = 40}},
        1780000002000);
    const auto second = k.read(first.checkpoint);
    ASSERT_EQ(second.events.size(), 2u);
    EXPECT_TRUE(idsOf(first).contains(second.events[0].id));
    EXPECT_EQ(second.events[1].id, "kiro:c1:q3:claude-sonnet-4");
}

TEST(KiroReader, CountsAnEntryWhoseMetadataArrivesLater) {
    KiroFixture k;
    cs::KiroRequest done{
        .requestID = "q0", .startMs = 1780000000000, .promptBytes = 40, .responseBytes = 40};
    auto value = nlohmann::json::parse(cs::kiroConversationJSON("c1", {done}));
    value["history"].push_back({{"user", {{"content", "still streaming"}}}});
    k.db.run("INSERT INTO conversations_v2 VALUES ('/w', 'c1', ?, 1, 1780000001000)",
             {value.dump()});
    const auto first = k.read();
    ASSERT_EQ(first.events.size(), 1u);
    cs::KiroRequest later{
        .requestID = "q1", .startMs = 1780000000500, .promptBytes = 8, .responseBytes = 8};
    cs::putKiroConversation(k.db, "/w", "c1", {done, later}, 1780000002000);
    const auto second = k.read(first.checkpoint);
    ASSERT_EQ(second.events.size(), 1u);
    EXPECT_EQ(second.events[0].id, "kiro:c1:q1:claude-sonnet-4");
}

TEST(KiroReader, ReportsAStoreWithoutTheConversationTable) {
    TempDir dir;
    {
        FixtureDB db(dir / "data.sqlite3");
        db.exec("CREATE TABLE conversations (key TEXT PRIMARY KEY, value TEXT);");
    }
    const auto r = readStore(AgentSource::kiro, dir / "data.sqlite3", std::nullopt);
    EXPECT_TRUE(r.formatChanged);
    EXPECT_TRUE(r.events.empty());
    // The IDE's and ~/.kiro folders hold no database this reader knows.
    dir.write(".kiro/sessions/s1.json", "{}");
    dir.write("Kiro/User/globalStorage/kiro.kiroagent/workspace-sessions/x/sessions.json", "[]");
    EXPECT_TRUE(KiroReader::discover(dir / ".kiro").empty());
    EXPECT_TRUE(KiroReader::discover(dir / "Kiro/User/globalStorage/kiro.kiroagent").empty());
}

// ---------------------------------------------------------------------------------------------
// Cursor

TEST(CursorReader, NeverPicksUpTheAccountCredentials) {
    TempDir home;
    const auto database = cs::writeCursorHome(home.path(), 2, 6, 1);
    {
        FixtureDB db(database);
        // Even where a careless reader would look: in the key-value table, under prefixes close
        // to the bubbles'.
        cs::putCursorValue(db, "cursorAuth/accessToken", std::string(cs::kCursorFakeAccessToken));
        cs::putCursorValue(db, "bubbleId", std::string(cs::kCursorFakeAccessToken));
        cs::putCursorValue(db, "bubbleid:x:y",
                           R"({"type":2,"tokenCount":{"inputTokens":1,"outputTokens":1},"t":")" +
                               std::string(cs::kCursorFakeAccessToken) + R"("})");
    }
    const auto first = readStore(AgentSource::cursor, database, std::nullopt);
    const auto second = readStore(AgentSource::cursor, database, first.checkpoint);
    ASSERT_EQ(static_cast<int64_t>(first.events.size()), cs::cursorExpectedEvents(2, 6));
    for (const auto* r : {&first, &second}) {
        const std::string dump = nlohmann::json(r->events).dump() +
                                 nlohmann::json(r->checkpoint).dump() + r->checkpoint.parserContext;
        EXPECT_EQ(dump.find(cs::kCursorFakeAccessToken), std::string::npos);
        EXPECT_EQ(dump.find("example.invalid"), std::string::npos);
    }
}

TEST(CursorReader, ReadsAssistantBubblesWithCountsOnly) {
    TempDir dir;
    const auto path = dir / "state.vscdb";
    FixtureDB db(path);
    cs::createCursorSchema(db);
    cs::putCursorValue(db, "composerData:c1", R"({"modelConfig":{"modelName":"gpt-5"}})");
    cs::putCursorValue(db, "bubbleId:c1:u1", cs::cursorBubbleJSON(1, 1780000000000, 0, 0));
    cs::putCursorValue(db, "bubbleId:c1:a1", cs::cursorBubbleJSON(2, 1780000001000, 1200, 80));
    cs::putCursorValue(db, "bubbleId:c1:a2", cs::cursorBubbleJSON(2, 1780000002000, 0, 0));
    cs::putCursorValue(db, "bubbleId:c1:a3",
                       R"({"type":2,"tokenCount":{"inputTokens":"12","outputTokens":3}})");
    cs::putCursorValue(db, "bubbleId:c1:", R"({"type":2})");
    // A value stored as a blob, in a composer without model data, with a time in milliseconds.
    const std::string blob =
        R"({"type":2,"createdAt":1780000003000,"tokenCount":{"inputTokens":7,"outputTokens":9}})";
    db.run("INSERT INTO cursorDiskKV VALUES ('bubbleId:c2:a1', ?)",
           {std::vector<unsigned char>(blob.begin(), blob.end())});
    const auto r = readStore(AgentSource::cursor, path, std::nullopt);
    ASSERT_EQ(r.events.size(), 2u);
    EXPECT_EQ(r.events[0].id, "cursor:c1:a1:gpt-5");
    EXPECT_EQ(r.events[0].exclusive, (ExclusiveTokens{1200, 0, 0, 80, 0}));
    EXPECT_DOUBLE_EQ(r.events[0].occurredAt, 1780000001.0);
    EXPECT_EQ(r.events[1].id, "cursor:c2:a1:cursor-unknown");
    EXPECT_DOUBLE_EQ(r.events[1].occurredAt, 1780000003.0);
    EXPECT_EQ(r.stats.malformed, 2);     // the text count, the key without a bubble id
    EXPECT_EQ(r.stats.withoutUsage, 2);  // the user bubble, the zero counts
}

TEST(CursorReader, CountsABubbleWhoseCountsArriveLater) {
    TempDir dir;
    const auto path = dir / "state.vscdb";
    FixtureDB db(path);
    cs::createCursorSchema(db);
    cs::putCursorValue(db, "bubbleId:c1:a1", cs::cursorBubbleJSON(2, 1780000001000, 0, 0));
    cs::putCursorValue(db, "bubbleId:c1:a2", cs::cursorBubbleJSON(2, 1780000001000, 3, 4));
    const auto first = readStore(AgentSource::cursor, path, std::nullopt);
    ASSERT_EQ(first.events.size(), 1u);
    cs::putCursorValue(db, "bubbleId:c1:a1", cs::cursorBubbleJSON(2, 1780000001000, 500, 60));
    const auto second = readStore(AgentSource::cursor, path, first.checkpoint);
    ASSERT_EQ(second.events.size(), 1u);
    EXPECT_EQ(second.events[0].id, "cursor:c1:a1:cursor-unknown");
    EXPECT_EQ(second.events[0].exclusive.inputUncached, 500);
}

// ---------------------------------------------------------------------------------------------
// Qoder, Qoder CN, TRAE SOLO CN

struct ChatFixture {
    TempDir dir;
    fs::path path = dir / "cache.db";
    cs::ChatSchema schema;
    std::unique_ptr<FixtureDB> db;
    explicit ChatFixture(cs::ChatSchema s = {}) : schema(s) {
        db = std::make_unique<FixtureDB>(path);
        cs::createChatSchema(*db, schema);
    }
    void assistant(const std::string& id, const std::optional<std::string>& info) {
        cs::putChatMessage(*db, schema, id, "s1", "r-" + id, "assistant", info, 1780000000000);
    }
    IngestResult read(AgentSource source = AgentSource::qoder) {
        return readStore(source, path, std::nullopt);
    }
};

TEST(ChatMessageReader, AcceptsTheCommonSpellingsOfTheCounts) {
    const struct {
        const char* info;
        ExclusiveTokens expected;  // for the independent family (Qoder)
    } cases[] = {
        {R"({"input_tokens":10,"output_tokens":20,"cache_read_input_tokens":30,"cache_creation_input_tokens":4})",
         {10, 30, 4, 20, 0}},
        {R"({"inputTokens":10,"outputTokens":20,"cacheReadTokens":30,"cacheWriteTokens":4})",
         {10, 30, 4, 20, 0}},
        // Prompt tokens include the cached part, which is taken out.
        {R"({"prompt_tokens":100,"completion_tokens":20,"prompt_tokens_details":{"cached_tokens":60}})",
         {40, 60, 0, 20, 0}},
        {R"({"promptTokens":5,"completionTokens":1,"cachedTokens":9})", {0, 9, 0, 1, 0}},
        {R"({"usage":{"input_tokens":7,"output_tokens":8}})", {7, 0, 0, 8, 0}},
        {R"({"output_tokens":8,"total_tokens":8})", {0, 0, 0, 8, 0}},
    };
    for (const auto& c : cases) {
        ChatFixture f;
        f.assistant("m1", std::string(c.info));
        const auto r = f.read();
        ASSERT_EQ(r.events.size(), 1u) << c.info;
        EXPECT_EQ(r.events[0].exclusive, c.expected) << c.info;
    }
}

TEST(ChatMessageReader, ReadsNoEmptyOrUnreadableTokenInfo) {
    ChatFixture f;
    f.assistant("empty-object", "{}");
    f.assistant("spaced-empty", "  {}  ");
    f.assistant("blank", "");
    f.assistant("null", std::nullopt);
    cs::putChatMessage(*f.db, f.schema, "user", "s1", "r", "user",
                       R"({"input_tokens":1,"output_tokens":1})", 1780000000000);
    f.assistant("string-count", R"({"input_tokens":"12","output_tokens":1})");
    f.assistant("huge", R"({"input_tokens":1e15,"output_tokens":1})");
    f.assistant("array", R"([1,2])");
    f.assistant("good", R"({"input_tokens":3,"output_tokens":4})");
    const auto r = f.read();
    ASSERT_EQ(r.events.size(), 1u);
    EXPECT_EQ(r.events[0].id, "qoder:s1:good:qoder-unknown");
    EXPECT_EQ(r.stats.lines, 4);  // the statement itself leaves out the empty ones and the user's
    EXPECT_EQ(r.stats.malformed, 3);
    EXPECT_FALSE(r.formatChanged);
}

TEST(ChatMessageReader, ReportsAChangedFormat) {
    {
        ChatFixture f;  // token_info present, but in a shape with none of the known keys
        f.assistant("m1", R"({"in":1,"out":2})");
        f.assistant("m2", R"({"in":3,"out":4})");
        const auto r = f.read();
        EXPECT_TRUE(r.formatChanged);
        EXPECT_EQ(r.stats.malformed, 2);
    }
    {
        TempDir dir;
        {
            FixtureDB db(dir / "x.db");
            db.exec("CREATE TABLE chat_message (id TEXT, role TEXT, content TEXT);");
        }
        const auto r = readStore(AgentSource::qoder, dir / "x.db", std::nullopt);
        EXPECT_TRUE(r.formatChanged);
        EXPECT_TRUE(r.events.empty());
    }
}

TEST(ChatMessageReader, TakesProjectAndModelFromTheOptionalTables) {
    const struct {
        const char* name;
        cs::ChatSchema schema;
        bool withSession;
        const char* model;
    } cases[] = {
        {"all tables", {}, true, "from-record"},
        {"no record table", {.recordTable = false}, true, "from-session"},
        {"extra on the message",
         {.recordTable = false, .recordExtraOnMessage = true},
         true,
         "from-message-extra"},
        {"no optional tables",
         {.sessionTable = false, .recordTable = false},
         false,
         "qoder-unknown"},
    };
    for (const auto& c : cases) {
        ChatFixture f(c.schema);
        if (c.withSession) {
            cs::putChatSession(*f.db, "s1", "shop", "file:///home/dev/my%20shop",
                               R"({"name":"from-session"})");
        }
        if (c.schema.recordTable) {
            cs::putChatRecord(*f.db, "r-m1", R"({"model":"from-record"})");
        }
        f.assistant("m1", R"({"input_tokens":3,"output_tokens":4})");
        if (c.schema.recordExtraOnMessage) {
            f.db->exec(
                R"(UPDATE chat_message SET record_extra = '{"modelName":"from-message-extra"}')");
        }
        const auto r = f.read();
        ASSERT_EQ(r.events.size(), 1u) << c.name;
        EXPECT_EQ(r.events[0].model, c.model) << c.name;
        EXPECT_EQ(r.events[0].projectDisplayName.value_or(""), c.withSession ? "my shop" : "")
            << c.name;
        EXPECT_EQ(r.events[0].cwdHash.has_value(), c.withSession) << c.name;
        if (c.withSession) {
            EXPECT_EQ(*r.events[0].cwdHash, Privacy::cwdHash("/home/dev/my shop"));
        }
    }
}

TEST(ChatMessageReader, MapsTraeAsAdditiveAndKeepsInferredTimesWithoutAColumn) {
    ASSERT_EQ(TokenSemantics::family(AgentSource::traeWorkCN), TokenFamily::additive);
    ChatFixture f({.createdAt = false});
    f.assistant(
        "m1",
        R"({"prompt_tokens":100,"completion_tokens":20,"prompt_tokens_details":{"cached_tokens":60}})");
    const auto r = f.read(AgentSource::traeWorkCN);
    ASSERT_EQ(r.events.size(), 1u);
    EXPECT_EQ(r.events[0].source, AgentSource::traeWorkCN);
    EXPECT_EQ(r.events[0].exclusive, (ExclusiveTokens{40, 60, 0, 20, 0}));
    EXPECT_EQ(r.events[0].providerInputTotal, 100);
    EXPECT_EQ(r.events[0].timeQuality, ObservationTimeQuality::inferred);
}

TEST(ChatMessageReader, DiscoversOnlyDatabasesHoldingChatMessages) {
    TempDir dir;
    const auto root = dir / "Qoder/SharedClientCache/cache/db";
    {
        FixtureDB a(root / "a.db");
        cs::createChatSchema(a);
    }
    {
        FixtureDB b(root / "nested/b.sqlite");
        cs::createChatSchema(b);
    }
    {
        FixtureDB other(root / "other.db");
        other.exec("CREATE TABLE t (x);");
    }
    {
        FixtureDB wrongName(root / "c.vscdb");
        cs::createChatSchema(wrongName);
    }
    dir.write("Qoder/SharedClientCache/cache/db/broken.db", "not a database");
    EXPECT_EQ(ChatMessageReader::discover(root),
              (std::vector<fs::path>{root / "a.db", root / "nested/b.sqlite"}));
}

// ---------------------------------------------------------------------------------------------
// AnythingLLM

TEST(AnythingLLMReader, ReadsTimesModelsAndExcludedRows) {
    TempDir dir;
    const auto path = dir / "anythingllm.db";
    FixtureDB db(path);
    cs::createAnythingLLMSchema(db);
    db.exec(
        "INSERT INTO workspaces (id, name, slug, chatProvider, chatModel) VALUES "
        "(1, 'Notes', 'notes', 'ollama', 'llama3.1:8b'), (2, 'Bare', 'bare', NULL, NULL);");
    // Integer milliseconds, text, excluded from the workspace context, no model anywhere.
    cs::putAnythingLLMChat(db, 1, 3, cs::anythingLLMResponseJSON(100, 20, "gpt-4o"),
                           int64_t{1780000000000}, true);
    cs::putAnythingLLMChat(db, 1, std::nullopt, cs::anythingLLMResponseJSON(5, 6, ""),
                           std::string("2026-05-28 20:26:40"), false);
    cs::putAnythingLLMChat(db, 2, std::nullopt, cs::anythingLLMResponseJSON(7, 8, ""),
                           std::string("2026-05-28T20:26:41.500Z"), true);
    cs::putAnythingLLMChat(db, 1, std::nullopt, std::nullopt, int64_t{1780000000000}, true);
    cs::putAnythingLLMChat(db, 1, std::nullopt,
                           R"({"metrics":{"prompt_tokens":"many","completion_tokens":1}})",
                           int64_t{1780000000000}, true);
    cs::putAnythingLLMChat(db, 1, std::nullopt, R"({"text":"old"})", int64_t{1780000000000}, true);
    const auto r = readStore(AgentSource::anythingLLM, path, std::nullopt);
    ASSERT_EQ(r.events.size(), 3u);
    EXPECT_EQ(r.events[0].id, "anythingllm:thread-3:1:gpt-4o");
    EXPECT_EQ(r.events[0].provider, "openai");
    EXPECT_DOUBLE_EQ(r.events[0].occurredAt, 1780000000.0);
    EXPECT_EQ(r.events[0].projectDisplayName, "Notes");
    EXPECT_EQ(r.events[1].id, "anythingllm:workspace-1:2:llama3.1:8b");
    EXPECT_EQ(r.events[1].provider, "ollama");
    EXPECT_DOUBLE_EQ(r.events[1].occurredAt, 1780000000.0);
    EXPECT_EQ(r.events[1].exclusive, (ExclusiveTokens{5, 0, 0, 6, 0}));
    EXPECT_EQ(r.events[2].model, AnythingLLMReader::kUnknownModel);
    EXPECT_DOUBLE_EQ(r.events[2].occurredAt, 1780000001.5);
    EXPECT_EQ(r.stats.malformed, 1);
    EXPECT_EQ(r.stats.withoutUsage, 1);
}

TEST(AnythingLLMReader, ReadsAStoreWithoutTheWorkspacesTable) {
    TempDir dir;
    const auto path = dir / "anythingllm.db";
    FixtureDB db(path);
    db.exec("CREATE TABLE workspace_chats (workspaceId INTEGER, response TEXT);");
    db.run("INSERT INTO workspace_chats VALUES (4, ?)", {cs::anythingLLMResponseJSON(3, 4, "")});
    const auto r = readStore(AgentSource::anythingLLM, path, std::nullopt);
    ASSERT_EQ(r.events.size(), 1u);
    EXPECT_EQ(r.events[0].id, "anythingllm:workspace-4:1:anythingllm-unknown");
    EXPECT_EQ(r.events[0].timeQuality, ObservationTimeQuality::inferred);
}

// ---------------------------------------------------------------------------------------------
// Z Code

TEST(ZCodeReader, TakesTheCacheOutOfInputAndReadsOnlyCompletedRows) {
    TempDir dir;
    const auto path = dir / "db.sqlite";
    FixtureDB db(path);
    cs::createZCodeSchema(db);
    cs::putZCodeSession(db, "s1", "/home/dev/z");
    cs::putZCodeUsage(db, {.id = "a",
                           .sessionID = "s1",
                           .input = 1000,
                           .output = 50,
                           .reasoning = 7,
                           .cacheRead = 800,
                           .cacheWrite = 150,
                           .startedMs = 1780000000000,
                           .completedMs = 1780000001000});
    cs::putZCodeUsage(db, {.id = "b",
                           .sessionID = "s1",
                           .input = 10,
                           .output = 5,
                           .cacheRead = 30,
                           .startedMs = 1780000002000,
                           .completedMs = 1780000003000});
    cs::putZCodeUsage(
        db,
        {.id = "c", .sessionID = "s1", .input = 10, .status = "error", .startedMs = 1780000004000});
    cs::putZCodeUsage(
        db,
        {.id = "d", .sessionID = "s1", .startedMs = 1780000005000, .completedMs = 1780000006000});
    db.exec("UPDATE model_usage SET output_tokens = 'x' WHERE id = 'b'");
    const auto r = readStore(AgentSource::zcode, path, std::nullopt);
    ASSERT_EQ(r.events.size(), 1u);
    const auto& e = r.events[0];
    EXPECT_EQ(e.id, "zcode:s1:a:glm-4.6");
    EXPECT_EQ(e.exclusive, (ExclusiveTokens{50, 800, 150, 50, 7}));
    EXPECT_EQ(e.provider, "zhipuai");
    EXPECT_EQ(e.cwdHash, Privacy::cwdHash("/home/dev/z"));
    EXPECT_EQ(r.stats.malformed, 1);
}

TEST(ZCodeReader, PicksUpARequestThatCompletesAfterLaterOnes) {
    const struct {
        const char* name;
        bool completedAt;
        bool sessionTable;
    } cases[] = {{"full schema", true, true}, {"no session table", true, false}};
    for (const auto& c : cases) {
        TempDir dir;
        const auto path = dir / "db.sqlite";
        FixtureDB db(path);
        cs::createZCodeSchema(db, c.completedAt, c.sessionTable);
        cs::ZCodeUsage slow{.id = "slow",
                            .sessionID = "s1",
                            .input = 4,
                            .output = 4,
                            .status = "running",
                            .startedMs = 1780000000000};
        cs::putZCodeUsage(db, slow, c.completedAt);
        cs::putZCodeUsage(db,
                          {.id = "fast",
                           .sessionID = "s1",
                           .input = 4,
                           .output = 4,
                           .startedMs = 1780000001000,
                           .completedMs = 1780000002000},
                          c.completedAt);
        const auto first = readStore(AgentSource::zcode, path, std::nullopt);
        ASSERT_EQ(first.events.size(), 1u) << c.name;
        slow.status = "completed";
        slow.completedMs = 1780000009000;
        cs::putZCodeUsage(db, slow, c.completedAt);
        const auto second = readStore(AgentSource::zcode, path, first.checkpoint);
        ASSERT_EQ(second.events.size(), 1u) << c.name;
        EXPECT_EQ(second.events[0].id, "zcode:s1:slow:glm-4.6") << c.name;
        EXPECT_FALSE(second.events[0].cwdHash.has_value()) << c.name;
    }
}

TEST(ZCodeReader, ReportsATableWithoutTheUsageColumns) {
    TempDir dir;
    {
        FixtureDB db(dir / "db.sqlite");
        db.exec("CREATE TABLE model_usage (id TEXT, session_id TEXT, tokens INTEGER);");
    }
    const auto r = readStore(AgentSource::zcode, dir / "db.sqlite", std::nullopt);
    EXPECT_TRUE(r.formatChanged);
    EXPECT_TRUE(r.events.empty());
}

}  // namespace
}  // namespace kestrel

// ---------------------------------------------------------------------------------------------
// Statements kept for sources that adopt them

namespace kestrel {
namespace {

using GenericRead = IngestResult (*)(ReadonlySQLite&, AgentSource,
                                     const std::optional<SourceCheckpoint>&);

IngestResult readWith(GenericRead read, const fs::path& path,
                      const std::optional<SourceCheckpoint>& cp = std::nullopt) {
    ReadonlySQLite db(path);
    return read(db, AgentSource::dots, cp);
}

TEST(GenericStatements, PerRowStatementsResumeAfterTheirLastRow) {
    const struct {
        const char* name;
        GenericRead read;
        const char* schema;
        const char* rows;       // three rows, one of them without usage
        const char* later;      // one more row
        ExclusiveTokens first;  // the first event's buckets
    } cases[] = {
        {"tokens_generated",
         GenericStatements::readTokensGenerated,
         "CREATE TABLE tokens_generated (id INTEGER PRIMARY KEY, session_id TEXT, model TEXT, "
         "tokens_prompt INTEGER, tokens_generated INTEGER, created_at INTEGER);",
         "INSERT INTO tokens_generated VALUES (1, 's1', 'qwen3', 120, 30, 1780000000000),"
         "(2, 's1', 'qwen3', 0, 0, 1780000001000), (3, 's1', NULL, 5, 6, 1780000002000);",
         "INSERT INTO tokens_generated VALUES (4, 's2', 'qwen3', 7, 8, 1780000003000);",
         {120, 0, 0, 30, 0}},
        {"assistant_usage_events",
         GenericStatements::readAssistantUsageEvents,
         "CREATE TABLE assistant_usage_events (id TEXT PRIMARY KEY, session_id TEXT, model TEXT, "
         "input_tokens INTEGER, output_tokens INTEGER, cache_read_tokens INTEGER, "
         "cache_write_tokens INTEGER, reasoning_tokens INTEGER, created_at TEXT);",
         "INSERT INTO assistant_usage_events VALUES ('evt-01', 's1', 'gpt-5', 10, 20, 300, 4, 5, "
         "'2026-05-28T20:26:40Z'), ('evt-02', 's1', 'gpt-5', 0, 0, 0, 0, 0, NULL),"
         "('evt-03', 's1', 'gpt-5', 1, 1, 0, 0, 0, NULL);",
         "INSERT INTO assistant_usage_events VALUES ('evt-04', 's1', 'gpt-5', 2, 2, 0, 0, 0, "
         "NULL);",
         {10, 300, 4, 20, 5}},
        {"frames",
         GenericStatements::readFrames,
         "CREATE TABLE frames (id INTEGER PRIMARY KEY, session_id TEXT, aux_input_tokens INTEGER, "
         "aux_output_tokens INTEGER, aux_cache_read_tokens INTEGER, aux_cache_write_tokens "
         "INTEGER);",
         "INSERT INTO frames VALUES (1, 'f1', 40, 9, 100, 0), (2, 'f1', 0, 0, 0, 0),"
         "(3, 'f1', 1, 1, 0, 0);",
         "INSERT INTO frames VALUES (4, 'f1', 3, 3, 0, 0);",
         {40, 100, 0, 9, 0}},
    };
    for (const auto& c : cases) {
        TempDir dir;
        const auto path = dir / "store.db";
        FixtureDB db(path);
        db.exec(c.schema);
        db.exec(c.rows);
        const auto first = readWith(c.read, path);
        ASSERT_EQ(first.events.size(), 2u) << c.name;
        EXPECT_EQ(first.events[0].exclusive, c.first) << c.name;
        EXPECT_EQ(first.events[0].source, AgentSource::dots) << c.name;
        EXPECT_EQ(first.stats.malformed, 0) << c.name;
        EXPECT_TRUE(readWith(c.read, path, first.checkpoint).events.empty()) << c.name;
        db.exec(c.later);
        const auto second = readWith(c.read, path, first.checkpoint);
        ASSERT_EQ(second.events.size(), 1u) << c.name;
        EXPECT_FALSE(idsOf(first).contains(second.events[0].id)) << c.name;
    }
}

TEST(GenericStatements, ReadTablesWithoutTheirOptionalColumns) {
    TempDir dir;
    const auto path = dir / "store.db";
    {
        FixtureDB db(path);
        db.exec(
            "CREATE TABLE assistant_usage_events (id INTEGER PRIMARY KEY, input_tokens INTEGER, "
            "output_tokens INTEGER, token_details_json TEXT);"
            "INSERT INTO assistant_usage_events VALUES (7, 11, 12, '{\"audio\":3}'),"
            "(8, 'many', 1, NULL);"
            "CREATE TABLE frames (aux_input_tokens INTEGER, aux_output_tokens INTEGER);"
            "INSERT INTO frames VALUES (5, 6);");
    }
    const auto usage = readWith(GenericStatements::readAssistantUsageEvents, path);
    ASSERT_EQ(usage.events.size(), 1u);
    EXPECT_EQ(usage.events[0].id, "dots::7:dots-unknown");
    EXPECT_EQ(usage.events[0].rawExtras, R"({"tokenDetails":{"audio":3}})");
    EXPECT_EQ(usage.events[0].timeQuality, ObservationTimeQuality::inferred);
    EXPECT_EQ(usage.stats.malformed, 1);
    const auto frames = readWith(GenericStatements::readFrames, path);
    ASSERT_EQ(frames.events.size(), 1u);
    EXPECT_EQ(frames.events[0].exclusive, (ExclusiveTokens{5, 0, 0, 6, 0}));
    // A store without the table is not one of these.
    for (auto read :
         {GenericStatements::readTokensGenerated, GenericStatements::readSessionTotals}) {
        const auto r = readWith(read, path);
        EXPECT_TRUE(r.formatChanged);
        EXPECT_TRUE(r.events.empty());
    }
}

TEST(GenericStatements, SessionTotalsYieldGrowthAndRestartAfterAReset) {
    TempDir dir;
    const auto path = dir / "store.db";
    FixtureDB db(path);
    db.exec(
        "CREATE TABLE sessions (id TEXT PRIMARY KEY, model TEXT, updated_at INTEGER, "
        "total_input_tokens INTEGER, total_output_tokens INTEGER, total_cached_tokens INTEGER, "
        "total_reasoning_tokens INTEGER);"
        "INSERT INTO sessions VALUES ('a', 'glm-4.6', 1780000000000, 100, 10, 50, 0),"
        "('b', 'glm-4.6', 1780000000000, 0, 0, 0, 0);");
    const auto first = readWith(GenericStatements::readSessionTotals, path);
    ASSERT_EQ(first.events.size(), 1u);
    EXPECT_EQ(first.events[0].granularity, UsageGranularity::sessionAggregate);
    EXPECT_EQ(first.events[0].exclusive, (ExclusiveTokens{100, 50, 0, 10, 0}));

    db.exec(
        "UPDATE sessions SET total_input_tokens = 160, total_output_tokens = 25 WHERE id = 'a'");
    const auto grown = readWith(GenericStatements::readSessionTotals, path, first.checkpoint);
    ASSERT_EQ(grown.events.size(), 1u);
    EXPECT_EQ(grown.events[0].exclusive, (ExclusiveTokens{60, 0, 0, 15, 0}));
    EXPECT_NE(grown.events[0].id, first.events[0].id);
    EXPECT_TRUE(
        readWith(GenericStatements::readSessionTotals, path, grown.checkpoint).events.empty());

    // The agent reset the session: no negative usage, and the next growth counts from there.
    db.exec("UPDATE sessions SET total_input_tokens = 20, total_output_tokens = 2 WHERE id = 'a'");
    const auto reset = readWith(GenericStatements::readSessionTotals, path, grown.checkpoint);
    EXPECT_TRUE(reset.events.empty());
    db.exec("UPDATE sessions SET total_input_tokens = 30, total_output_tokens = 3 WHERE id = 'a'");
    const auto after = readWith(GenericStatements::readSessionTotals, path, reset.checkpoint);
    ASSERT_EQ(after.events.size(), 1u);
    EXPECT_EQ(after.events[0].exclusive.inputUncached, 10);
    EXPECT_EQ(after.events[0].exclusive.outputVisible, 1);
}

}  // namespace
}  // namespace kestrel
