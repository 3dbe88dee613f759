#include "core/sources/stores/opencode_reader.hpp"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "core/ledger/event_finishing.hpp"
#include "core/ledger/ingestor.hpp"
#include "core/ledger/usage_store.hpp"
#include "core/model/event_id.hpp"
#include "core/model/privacy.hpp"
#include "core/model/timestamp.hpp"
#include "core/sources/readonly_sqlite.hpp"
#include "core/sources/stores/opencode_message.hpp"
#include "tests/support/temp_dir.hpp"
#include "tools/agent_corpus/opencode_corpus.hpp"

namespace kestrel {
namespace {

namespace fs = std::filesystem;
namespace oc = corpus::opencode;
using test_support::TempDir;

constexpr int64_t kT0 = 1767225600000;  // 2026-01-01T00:00:00Z, in ms

std::expected<IngestResult, FileError> tryRead(const fs::path& file,
                                               const std::optional<SourceCheckpoint>& checkpoint,
                                               AgentSource source) {
    SourceReadContext context;
    context.source = source;
    context.file = file;
    context.checkpoint = checkpoint;
    return SourceReaders::collect(OpencodeFamily::ingest, std::move(context));
}

// The events as the ingestor would commit them under the default settings: costs the agent
// reported are kept, the rest priced from an empty table.
IngestResult read(const fs::path& file, const std::optional<SourceCheckpoint>& checkpoint = {},
                  AgentSource source = AgentSource::opencode) {
    auto result = tryRead(file, checkpoint, source);
    EXPECT_TRUE(result.has_value()) << (result ? "" : result.error().description());
    if (!result) {
        return {};
    }
    for (auto& e : result->events) {
        e = finishEvent(std::move(e), AppSettings{}, PriceTable::empty());
    }
    return *result;
}

oc::Assistant reply(uint64_t n, std::string sessionID, std::vector<oc::Call> steps,
                    std::optional<oc::Call> own = {}) {
    oc::Assistant a;
    a.id = oc::nativeID("msg", n);
    a.sessionID = std::move(sessionID);
    a.createdMs = kT0 + static_cast<int64_t>(n) * 60'000;
    a.completedMs = a.createdMs + 4000;
    a.steps = std::move(steps);
    a.own = own;
    return a;
}

const UsageEvent* find(const std::vector<UsageEvent>& events, std::string_view messageID) {
    for (const auto& e : events) {
        if (e.id.find(messageID) != std::string::npos) {
            return &e;
        }
    }
    return nullptr;
}

std::optional<double> extra(const UsageEvent& e, const char* key) {
    if (!e.rawExtras) {
        return std::nullopt;
    }
    const auto j = nlohmann::json::parse(*e.rawExtras);
    return j.contains(key) ? std::optional(j[key].get<double>()) : std::nullopt;
}

TEST(OpencodeUsage, SumsStepFinishPartsAndFallsBackToTheMessageOwnCounts) {
    TempDir home;
    const auto path = home / "opencode.db";
    const std::string session = oc::nativeID("ses", 1);
    const oc::Call a{100, 40, 5, 1000, 200, 0.01};
    const oc::Call b{7, 60, 0, 3000, 0, 0.02};
    const oc::Call c{3, 10, 2, 500, 50, 0.005};
    const struct Case {
        const char* name;
        oc::Assistant message;
        TokenSnapshot expected;  // input, cacheRead, cacheWrite, output, reasoning
        int64_t costMicros;
    } cases[] = {
        // The message's own tokens are only the last call's (c); the three calls are summed.
        {"three calls", reply(1, session, {a, b, c}), {110, 4500, 250, 110, 7, 0}, 35'000},
        {"one call", reply(2, session, {b}), {7, 3000, 0, 60, 0, 0}, 20'000},
        // Older builds: no step-finish parts, the message carries everything.
        {"no parts",
         reply(3, session, {}, oc::Call{9, 8, 1, 700, 60, 0.004}),
         {9, 700, 60, 8, 1, 0},
         4'000},
    };
    {
        oc::Database db(path);
        db.addSession(session, "/home/dev/kestrel");
        for (const auto& c : cases) {
            db.addUser(oc::nativeID("msg", 100 + (&c - cases)), session, c.message.createdMs - 10);
            db.addAssistant(c.message);
        }
    }
    const auto result = read(path);
    ASSERT_EQ(result.events.size(), std::size(cases));
    EXPECT_EQ(result.stats.withoutUsage, 3);  // the user messages
    EXPECT_EQ(result.stats.malformed, 0);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto* e = find(result.events, c.message.id);
        ASSERT_NE(e, nullptr);
        EXPECT_EQ(e->raw.input, c.expected.input);
        EXPECT_EQ(e->raw.cachedInput, c.expected.cachedInput);
        EXPECT_EQ(e->raw.cacheCreate, c.expected.cacheCreate);
        EXPECT_EQ(e->raw.output, c.expected.output);
        EXPECT_EQ(e->raw.reasoning, c.expected.reasoning);
        // Independent family: input is already uncached, reasoning is its own bucket.
        EXPECT_EQ(e->exclusive.inputUncached, c.expected.input);
        EXPECT_EQ(e->exclusive.reasoning, c.expected.reasoning);
        EXPECT_EQ(e->estimatedCostUSDMicros, c.costMicros);
        EXPECT_EQ(e->costSource, CostSource::vendorReported);
        EXPECT_EQ(e->id, EventID::local(AgentSource::opencode, session, c.message.id,
                                        "claude-sonnet-4-5"));
        EXPECT_EQ(e->source, AgentSource::opencode);
        EXPECT_EQ(e->provider, "anthropic");
        EXPECT_EQ(e->sessionID, session);
        EXPECT_DOUBLE_EQ(e->occurredAt, static_cast<double>(c.message.createdMs) / 1000.0);
        EXPECT_EQ(e->timeQuality, ObservationTimeQuality::trusted);
        EXPECT_EQ(e->granularity, UsageGranularity::request);
        EXPECT_EQ(e->usagePrecision, UsagePrecision::nativeExact);
        // The session's directory wins over the message's path.cwd.
        EXPECT_EQ(e->cwdHash, Privacy::cwdHash("/home/dev/kestrel"));
    }
}

TEST(OpencodeLegacy, MessagesInTheDatabaseAndInOldFilesMakeTheSameEvents) {
    TempDir home;
    const auto root = home / ".local/share/opencode";
    const std::string session = oc::nativeID("ses", 2);
    const auto both = reply(10, session, {{50, 20, 0, 900, 0, 0.003}, {5, 30, 4, 1000, 10, 0.004}});
    const auto filesOnly = reply(11, session, {}, oc::Call{12, 34, 0, 0, 0, 0.001});
    {
        oc::Database db(root / "opencode.db");
        db.addSession(session, "/home/dev/app");
        db.addAssistant(both);
    }
    oc::writeLegacySession(root, "proj1", session, "/home/dev/app");
    oc::writeLegacyAssistant(root, both);
    oc::writeLegacyAssistant(root, filesOnly);
    oc::writeLegacyUser(root, oc::nativeID("msg", 12), session, kT0);

    const auto flavor = OpencodeFamily::flavor(AgentSource::opencode);
    const auto files = OpencodeFamily::discover(flavor, root);
    ASSERT_EQ(files.size(), 4u);  // the database and three message files
    std::map<std::string, UsageEvent> byID;
    int64_t produced = 0;
    for (const auto& file : files) {
        for (auto& e : read(file).events) {
            ++produced;
            const auto [it, added] = byID.try_emplace(e.id, e);
            if (!added) {
                // Read twice, once from each place: the same usage under the same id.
                EXPECT_EQ(it->second.raw, e.raw) << e.id;
                EXPECT_EQ(it->second.estimatedCostUSDMicros, e.estimatedCostUSDMicros);
                EXPECT_EQ(it->second.cwdHash, e.cwdHash);
            }
        }
    }
    EXPECT_EQ(produced, 3);
    ASSERT_EQ(byID.size(), 2u);
    const auto& fromBoth =
        byID.at(EventID::local(AgentSource::opencode, session, both.id, "claude-sonnet-4-5"));
    EXPECT_EQ(fromBoth.raw.input, 55);
    EXPECT_EQ(fromBoth.raw.output, 50);
    EXPECT_EQ(fromBoth.estimatedCostUSDMicros, 7'000);
    const auto& fromFiles =
        byID.at(EventID::local(AgentSource::opencode, session, filesOnly.id, "claude-sonnet-4-5"));
    EXPECT_EQ(fromFiles.raw.output, 34);
}

TEST(OpencodeResume, ReadsOnlyRowsAfterTheHighWaterMarkAndWaitsForUnfinishedReplies) {
    TempDir home;
    const auto path = home / "opencode.db";
    const std::string session = oc::nativeID("ses", 3);
    const oc::Call call{10, 20, 0, 300, 0, 0.002};
    oc::Database db(path);
    db.addSession(session, "/home/dev/app");
    db.addAssistant(reply(1, session, {call}));
    db.addAssistant(reply(2, session, {call}));

    const auto first = read(path);
    ASSERT_EQ(first.events.size(), 2u);
    ASSERT_TRUE(first.checkpoint.logicalHighWater);
    EXPECT_EQ(*first.checkpoint.logicalHighWater, "message:2");

    const auto again = read(path, first.checkpoint);
    EXPECT_TRUE(again.events.empty());
    EXPECT_EQ(again.stats.lines, 0);  // nothing was even fetched
    EXPECT_EQ(again.checkpoint.logicalHighWater, first.checkpoint.logicalHighWater);

    // A reply still running (created now, not completed), with one call done so far, then a
    // finished one after it.
    auto running = reply(3, session, {call});
    running.createdMs = static_cast<int64_t>(epochNow() * 1000);
    running.completedMs.reset();
    db.addAssistant(running);
    db.addAssistant(reply(4, session, {call}));
    const auto third = read(path, again.checkpoint);
    ASSERT_EQ(third.events.size(), 1u);
    EXPECT_NE(find(third.events, oc::nativeID("msg", 4)), nullptr);
    EXPECT_EQ(*third.checkpoint.logicalHighWater, "message:2");  // held before the running one

    // It finishes with a second call: its row is updated in place and the new part arrives.
    running.steps.push_back({1, 2, 0, 400, 0, 0.001});
    running.completedMs = running.createdMs + 5000;
    db.updateAssistant(running, 1);
    const auto fourth = read(path, third.checkpoint);
    ASSERT_EQ(fourth.events.size(), 2u);  // the finished reply and, again, the one after it
    const auto* finished = find(fourth.events, running.id);
    ASSERT_NE(finished, nullptr);
    EXPECT_EQ(finished->raw.input, 11);
    EXPECT_EQ(finished->raw.cachedInput, 700);
    EXPECT_EQ(finished->estimatedCostUSDMicros, 3'000);
    EXPECT_EQ(*fourth.checkpoint.logicalHighWater, "message:4");
    EXPECT_TRUE(read(path, fourth.checkpoint).events.empty());
}

TEST(OpencodeResume, AReplyAbandonedLongAgoIsTakenAsItStands) {
    TempDir home;
    const auto path = home / "opencode.db";
    const std::string session = oc::nativeID("ses", 4);
    oc::Database db(path);
    auto stale = reply(1, session, {{10, 20, 0, 0, 0, 0.001}});
    stale.completedMs.reset();  // created in 2026-01, far more than the give-up time ago
    db.addAssistant(stale);
    const auto result = read(path);
    ASSERT_EQ(result.events.size(), 1u);
    EXPECT_EQ(*result.checkpoint.logicalHighWater, "message:1");
}

TEST(OpencodeSchema, OptionalTablesAndColumnsMayBeMissing) {
    const std::string session = oc::nativeID("ses", 5);
    const struct Case {
        const char* name;
        oc::Schema schema;
        const char* table;
        int64_t expectedOutput;  // parts summed (5+7) or the message's last call (7)
        const char* cwd;
        bool formatChanged;
        size_t events;
    } cases[] = {
        {"full", {}, "message", 12, "/home/dev/from-session", false, 1},
        {"no part table", {.partTable = false}, "message", 7, "/home/dev/from-session", false, 1},
        {"no session table",
         {.sessionTable = false},
         "message",
         12,
         "/home/dev/from-path",
         false,
         1},
        {"session without directory",
         {.sessionDirectory = false},
         "message",
         12,
         "/home/dev/from-path",
         false,
         1},
        {"session_message only",
         {.messageTable = false, .sessionMessageTable = true},
         "session_message",
         12,
         "/home/dev/from-session",
         false,
         1},
        {"no message table", {.messageTable = false}, nullptr, 0, "", true, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir home;
        const auto path = home / "opencode.db";
        {
            oc::Database db(path, c.schema);
            if (c.schema.sessionTable) {
                db.addSession(session, "/home/dev/from-session");
            }
            if (c.table != nullptr) {
                auto a = reply(1, session, {{1, 5, 0, 0, 0, 0}, {1, 7, 0, 0, 0, 0}});
                a.cwd = "/home/dev/from-path";
                db.addAssistant(a, c.table);
            }
        }
        const auto result = read(path);
        EXPECT_EQ(result.formatChanged, c.formatChanged);
        ASSERT_EQ(result.events.size(), c.events);
        if (c.events > 0) {
            EXPECT_EQ(result.events[0].raw.output, c.expectedOutput);
            EXPECT_EQ(result.events[0].cwdHash, Privacy::cwdHash(c.cwd));
        }
    }
}

TEST(OpencodeHostile, RecordsWithWrongTypesAreSkippedAndCounted) {
    TempDir home;
    const auto path = home / "opencode.db";
    const std::string session = oc::nativeID("ses", 6);
    const struct {
        const char* name;
        const char* extraJSON;
    } badMessages[] = {
        {"input as text", R"({"tokens":{"input":"12","output":3}})"},
        {"tokens not an object", R"({"tokens":"lots"})"},
        {"cache read a boolean", R"({"tokens":{"input":1,"cache":{"read":true}}})"},
        {"cache an array", R"({"tokens":{"input":1,"cache":[1,2]}})"},
        {"cost as text", R"({"cost":"0.10","tokens":{"input":1}})"},
        {"beyond a trillion", R"({"tokens":{"input":10000000000000,"output":1}})"},
    };
    oc::Database db(path, {.partTable = true});
    db.addSession(session, "/home/dev/app");
    uint64_t n = 0;
    for (const auto& bad : badMessages) {
        auto a = reply(++n, session, {}, oc::Call{1, 1, 0, 0, 0, 0});
        a.extraJSON = bad.extraJSON;
        db.addAssistant(a);
    }
    db.addRawMessage(oc::nativeID("msg", 50), session, "not json {");
    db.addRawMessage(oc::nativeID("msg", 51), session, "[1,2,3]");
    db.addRawMessage(oc::nativeID("msg", 52), session, "\xff\xfe{\"role\":\"assistant\"}");
    // A good reply whose parts include one broken step-finish: the broken part is counted and
    // the others still summed.
    const auto good = reply(60, session, {{4, 6, 0, 0, 0, 0.001}});
    db.addAssistant(good);
    db.addRawPart(good.id, session, R"({"type":"step-finish","tokens":{"input":[1]}})");
    db.addRawPart(good.id, session, R"({"type":"step-finish","tokens":{"input":2,"output":3}})");

    const auto result = read(path);
    ASSERT_EQ(result.events.size(), 1u);
    EXPECT_EQ(result.events[0].raw.input, 6);
    EXPECT_EQ(result.events[0].raw.output, 9);
    EXPECT_EQ(result.stats.malformed, static_cast<int64_t>(std::size(badMessages)) + 3 + 1);
    EXPECT_FALSE(result.formatChanged);
}

TEST(OpencodeStoreErrors, UnreadableDatabasesAreErrorValues) {
    TempDir home;
    const auto notSQLite = home.write("opencode.db", std::string(4096, 'x'));
    const auto foreign = tryRead(notSQLite, std::nullopt, AgentSource::opencode);
    ASSERT_FALSE(foreign.has_value());
    EXPECT_EQ(foreign.error().sqliteCode, SQLITE_NOTADB);
    EXPECT_EQ(foreign.error().path, notSQLite.string());

    // Another connection holds an exclusive lock (a rollback-journal database, where that keeps
    // readers out): the read gives up after the busy timeout instead of hanging.
    const auto locked = home / "opencode-beta.db";
    {
        oc::Database db(locked, {.wal = false});
        db.addAssistant(reply(1, oc::nativeID("ses", 7), {{1, 1, 0, 0, 0, 0}}));
    }
    sqlite3* writer = nullptr;
    ASSERT_EQ(sqlite3_open(locked.c_str(), &writer), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(writer, "BEGIN EXCLUSIVE; DELETE FROM part;", nullptr, nullptr, nullptr),
              SQLITE_OK);
    const auto started = std::chrono::steady_clock::now();
    const auto busy = tryRead(locked, std::nullopt, AgentSource::opencode);
    ASSERT_FALSE(busy.has_value());
    EXPECT_EQ(busy.error().sqliteCode, SQLITE_BUSY);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(3));
    sqlite3_exec(writer, "ROLLBACK", nullptr, nullptr, nullptr);
    sqlite3_close(writer);
    EXPECT_EQ(read(locked).events.size(), 1u);  // once released, it reads
}

TEST(OpencodeStore, ReadingLeavesTheDatabaseBytesAndTimeAlone) {
    TempDir home;
    const auto path = home / "opencode.db";
    {
        oc::Database db(path);
        db.addSession(oc::nativeID("ses", 8), "/home/dev/app");
        db.addAssistant(reply(1, oc::nativeID("ses", 8), {{1, 2, 0, 3, 0, 0.001}}));
    }
    auto snapshot = [&] {
        std::ifstream in(path, std::ios::binary);
        std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        struct stat st {};
        ::stat(path.c_str(), &st);
        return std::make_pair(bytes, std::make_pair(st.st_mtim.tv_sec, st.st_mtim.tv_nsec));
    };
    const auto before = snapshot();
    ASSERT_FALSE(before.first.empty());
    EXPECT_EQ(read(path).events.size(), 1u);
    EXPECT_EQ(snapshot(), before);
}

TEST(OpencodeDiscovery, FindsEachAgentsDatabasesAndOldFiles) {
    TempDir home;
    for (auto name : {"opencode.db", "opencode-beta.db", "opencode.db-wal", "kilo.db",
                      "kilo-prod.db", "mimocode.db", "cache.db", "notes.txt"}) {
        home.write(fs::path("root") / name, "");
    }
    home.write("root/storage/message/ses_a/msg_a.json", "{}");
    home.write("root/storage/part/msg_a/prt_a.json", "{}");
    const auto root = home / "root";
    auto names = [&](AgentSource source, const fs::path& where) {
        std::vector<std::string> out;
        for (const auto& f : OpencodeFamily::discover(OpencodeFamily::flavor(source), where)) {
            out.push_back(fs::relative(f, home.path()).string());
        }
        return out;
    };
    using V = std::vector<std::string>;
    EXPECT_EQ(names(AgentSource::opencode, root), (V{"root/opencode-beta.db", "root/opencode.db",
                                                     "root/storage/message/ses_a/msg_a.json"}));
    EXPECT_EQ(names(AgentSource::kiloCLI, root),
              (V{"root/kilo-prod.db", "root/kilo.db", "root/storage/message/ses_a/msg_a.json"}));
    EXPECT_EQ(
        names(AgentSource::mimo, root),
        (V{"root/cache.db", "root/kilo-prod.db", "root/kilo.db", "root/mimocode.db",
           "root/opencode-beta.db", "root/opencode.db", "root/storage/message/ses_a/msg_a.json"}));
    // An environment override names the database file itself, whatever its name.
    EXPECT_EQ(names(AgentSource::opencode, root / "notes.txt"), (V{"root/notes.txt"}));
    EXPECT_TRUE(names(AgentSource::opencode, home / "missing").empty());
}

TEST(OpencodeDiscovery, AForeignDatabaseInTheMimoFolderIsNotAFormatChange) {
    TempDir home;
    {
        corpus::FixtureDB other(home / "cache.db");
        other.exec("CREATE TABLE kv (k TEXT, v TEXT)");
        corpus::FixtureDB own(home / "mimocode.db");
        own.exec("CREATE TABLE kv (k TEXT, v TEXT)");
    }
    EXPECT_FALSE(read(home / "cache.db", {}, AgentSource::mimo).formatChanged);
    EXPECT_TRUE(read(home / "mimocode.db", {}, AgentSource::mimo).formatChanged);
}

TEST(MimoImports, IdentifierShapesTellImportedRecords) {
    const struct {
        const char* id;
        bool native;
        bool foreign;
    } cases[] = {
        {"msg_19a4c2e1f00bAbCdEfGhIjKlMn", true, false},
        {"ses_19a4c2e1f00bZZZZZZZZZZZZZZ", true, false},
        {"msg_01XFDUDYJgAACzvnptvVoYEL", false, true},  // Anthropic message id
        {"msg_bdrk_01abc", false, true},
        {"0199a1b2-c3d4-7e5f-8a9b-0c1d2e3f4a5b", false, true},  // Codex / Claude Code UUID
        {"msg_19A4C2E1F00BAbCdEfGhIjKlMn", false, false},       // hex must be lowercase
        {"msg_19a4c2e1f00bAbCdEfGhIjKlM", false, false},        // one short
        {"0199a1b2-c3d4-7e5f-8a9b-0c1d2e3f4a5", false, false},
        {"", false, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(OpencodeMessage::isNativeID(c.id), c.native) << c.id;
        EXPECT_EQ(OpencodeMessage::isForeignID(c.id), c.foreign) << c.id;
    }
}

TEST(MimoImports, ImportedHistoryIsSkippedAndMimoOwnRepliesKept) {
    TempDir home;
    const auto path = home / "mimocode.db";
    const std::string uuidSession = "5f0c1e2a-9b8d-4c7e-a6f5-3d2c1b0a9e8f";
    const std::string native = oc::nativeID("ses", 20);
    const std::string markedSession = oc::nativeID("ses", 21);
    const oc::Call call{10, 10, 0, 0, 0, 0.001};
    auto withID = [&](std::string id, const std::string& session, const char* extraJSON = "") {
        auto a = reply(0, session, {call});
        a.id = std::move(id);
        a.extraJSON = extraJSON;
        return a;
    };
    const struct {
        const char* name;
        oc::Assistant message;
        bool counted;
    } cases[] = {
        {"own reply", withID(oc::nativeID("msg", 1), native), true},
        {"claude message id", withID("msg_01XFDUDYJgAACzvnptvVoYEL", native), false},
        {"codex line in a uuid session", withID("rollout-line-7", uuidSession), false},
        {"reply continuing an imported session", withID(oc::nativeID("msg", 2), uuidSession), true},
        {"marked by a field", withID(oc::nativeID("msg", 3), native, R"({"importedFrom":"codex"})"),
         false},
        {"marked by its provider",
         withID(oc::nativeID("msg", 4), native, R"({"providerID":"claude-code"})"), false},
        {"in a session whose slug marks an import", withID(oc::nativeID("msg", 5), markedSession),
         false},
    };
    {
        oc::Database db(path);
        db.addSession(native, "/home/dev/app");
        db.addSession(uuidSession, "/home/dev/app");
        db.addSession(markedSession, "/home/dev/app", {}, "imported-claude-session");
        for (const auto& c : cases) {
            db.addAssistant(c.message);
        }
    }
    const auto mimo = read(path, {}, AgentSource::mimo);
    const auto asOpencode = read(path, {}, AgentSource::opencode);
    EXPECT_EQ(asOpencode.events.size(), std::size(cases));  // only MiMo filters imports
    for (const auto& c : cases) {
        EXPECT_EQ(find(mimo.events, c.message.id) != nullptr, c.counted) << c.name;
    }
    for (const auto& e : mimo.events) {
        EXPECT_EQ(e.source, AgentSource::mimo);
    }
}

TEST(KiloCLI, AParentSessionCostIsNotAddedToItsSubSessionsCost) {
    TempDir home;
    const auto path = home / "kilo.db";
    const std::string parent = oc::nativeID("ses", 30);
    const std::string child = oc::nativeID("ses", 31);
    const std::string alone = oc::nativeID("ses", 32);
    const auto parentReply = reply(1, parent, {{100, 50, 0, 0, 0, 0.09}});
    const auto childReply = reply(2, child, {{40, 20, 0, 0, 0, 0.04}});
    const auto aloneReply = reply(3, alone, {{10, 5, 0, 0, 0, 0.01}});
    {
        oc::Database db(path);
        db.addSession(parent, "/home/dev/app");
        db.addSession(child, "/home/dev/app", parent);
        db.addSession(alone, "/home/dev/app");
        db.addAssistant(parentReply);
        db.addAssistant(childReply);
        db.addAssistant(aloneReply);
    }
    const auto kilo = read(path, {}, AgentSource::kiloCLI);
    ASSERT_EQ(kilo.events.size(), 3u);
    const auto* p = find(kilo.events, parentReply.id);
    const auto* c = find(kilo.events, childReply.id);
    const auto* a = find(kilo.events, aloneReply.id);
    ASSERT_TRUE(p && c && a);
    // The parent's reported cost may hold the child's: kept for audit, not used as its cost.
    EXPECT_EQ(extra(*p, "costUSD"), std::nullopt);
    EXPECT_EQ(extra(*p, "reportedCostUSD"), 0.09);
    EXPECT_NE(p->costSource, CostSource::vendorReported);
    EXPECT_EQ(p->raw.input, 100);
    EXPECT_EQ(c->estimatedCostUSDMicros, 40'000);
    EXPECT_EQ(a->estimatedCostUSDMicros, 10'000);
    EXPECT_EQ(c->source, AgentSource::kiloCLI);
    // opencode takes each session's own cost as it stands.
    const auto opencode = read(path, {}, AgentSource::opencode);
    EXPECT_EQ(find(opencode.events, parentReply.id)->estimatedCostUSDMicros, 90'000);
}

// Through the registered reader and the scan: the database and the old files that repeat its
// messages count each message once, a new row is picked up, and an unchanged store is skipped.
TEST(OpencodeScan, EachMessageIsCountedOnceAcrossPlacesAndScans) {
    TempDir home, support;
    const auto root = home / ".local/share/opencode";
    const std::string session = oc::nativeID("ses", 40);
    const auto first = reply(1, session, {{10, 20, 0, 300, 0, 0.002}});
    auto db = std::make_unique<oc::Database>(root / "opencode.db");
    db->addSession(session, "/home/dev/app");
    db->addAssistant(first);
    oc::writeLegacySession(root, "proj1", session, "/home/dev/app");
    oc::writeLegacyAssistant(root, first);  // migrated, but the file stays
    oc::writeLegacyAssistant(root, reply(2, session, {{1, 2, 0, 0, 0, 0.001}}));

    ASSERT_TRUE(SourceReaders::reader(AgentSource::opencode));
    EXPECT_EQ(SourceReaders::reader(AgentSource::opencode)->kind, SourceReaderKind::store);
    UsageStore store(support.path());
    Ingestor ingestor(store, PriceTable::empty(), nullptr);
    const std::set<AgentSource> only{AgentSource::opencode};
    ingestor.scan(home.path(), AppSettings{}, only, false);
    EXPECT_EQ(ingestor.status(AgentSource::opencode), SourceStatus::healthy);
    EXPECT_EQ(store.ledgerEventCount(), 2);

    db->addAssistant(reply(3, session, {{5, 5, 0, 0, 0, 0.001}}));
    db.reset();
    ingestor.scan(home.path(), AppSettings{}, only, false);
    EXPECT_EQ(store.ledgerEventCount(), 3);
    ASSERT_FALSE(ingestor.lastReports().empty());
    EXPECT_EQ(ingestor.lastReports().front().events, 1);  // only the new row was read

    ingestor.scan(home.path(), AppSettings{}, only, false);
    EXPECT_EQ(store.ledgerEventCount(), 3);
    EXPECT_EQ(ingestor.lastReports().front().events, 0);
}

TEST(OpencodeCorpus, HomesHoldTheEventsTheirCountersPromise) {
    const struct {
        AgentSource source;
        void (*write)(const fs::path&, int, int, uint64_t);
        int64_t (*expected)(int, int);
    } cases[] = {
        {AgentSource::opencode, oc::writeOpencodeHome, oc::opencodeHomeEvents},
        {AgentSource::kiloCLI, oc::writeKiloHome, oc::kiloHomeEvents},
        {AgentSource::mimo, oc::writeMimoHome, oc::mimoHomeEvents},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(rawValue(c.source)));
        TempDir home;
        c.write(home.path(), 9, 3, 42);
        const auto entry = AgentCatalog::spec(c.source, home.path());
        ASSERT_TRUE(entry);
        // Through the registered reader of the source, as the scan drives it.
        const auto reader = SourceReaders::reader(c.source);
        ASSERT_TRUE(reader);
        std::set<std::string> ids;
        SourceReadContext context;
        context.source = c.source;
        context.sink = [&](UsageEvent&& e) {
            EXPECT_EQ(e.source, c.source);
            ids.insert(e.id);
        };
        for (const auto& root : entry->roots) {
            std::vector<FileError> errors;
            for (const auto& file : reader->discover(root, &errors)) {
                context.file = file;
                const auto result = reader->ingest(context);
                ASSERT_TRUE(result.has_value());
                EXPECT_FALSE(result->formatChanged);
                EXPECT_EQ(result->stats.malformed, 0);
            }
            EXPECT_TRUE(errors.empty());
        }
        EXPECT_EQ(static_cast<int64_t>(ids.size()), c.expected(9, 3));
    }
}

}  // namespace
}  // namespace kestrel
