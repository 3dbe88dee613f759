#include "tools/agent_corpus/pi_corpus.hpp"

#include <ctime>
#include <nlohmann/json.hpp>
#include <random>
#include <vector>

#include "tools/agent_corpus/corpus_writer.hpp"

namespace kestrel::corpus::pi {

namespace {

using nlohmann::json;

constexpr int64_t kStartMs = 1772359200000;  // 2026-03-01T10:00:00Z

std::string hex(std::mt19937_64& rng, int digits) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    for (int i = 0; i < digits; ++i) {
        out += kDigits[rng() % 16];
    }
    return out;
}

std::string uuid(std::mt19937_64& rng) {
    return hex(rng, 8) + "-" + hex(rng, 4) + "-7" + hex(rng, 3) + "-8" + hex(rng, 3) + "-" +
           hex(rng, 12);
}

// "<ts>_<id>.jsonl" with the ISO time's ":" and "." turned into "-".
std::string sessionFileName(int64_t epochMs, std::string_view id) {
    std::string ts = isoTime(epochMs);
    for (char& c : ts) {
        if (c == ':' || c == '.')
            c = '-';
    }
    return ts + "_" + std::string(id) + ".jsonl";
}

json usageJSON(const Usage& u) {
    json j{{"input", u.input},
           {"output", u.output},
           {"cacheRead", u.cacheRead},
           {"cacheWrite", u.cacheWrite},
           {"totalTokens", u.input + u.output + u.cacheRead + u.cacheWrite},
           {"cost",
            {{"input", u.cost * 0.2},
             {"output", u.cost * 0.5},
             {"cacheRead", u.cost * 0.2},
             {"cacheWrite", u.cost * 0.1},
             {"total", u.cost}}}};
    if (u.reasoning >= 0) {
        j["reasoningTokens"] = u.reasoning;
    }
    return j;
}

// A plausible request: the Google APIs write input with the cache reads inside it.
Request randomRequest(std::mt19937_64& rng, int64_t epochMs, bool google) {
    Request r;
    r.entryID = hex(rng, 8);
    r.epochMs = epochMs;
    r.usage.cacheRead = static_cast<int64_t>(rng() % 40000);
    r.usage.output = 20 + static_cast<int64_t>(rng() % 2000);
    r.usage.cacheWrite = google ? 0 : static_cast<int64_t>(rng() % 3000);
    r.usage.input = 1 + static_cast<int64_t>(rng() % 800);
    r.usage.cost = static_cast<double>(1 + rng() % 20000) / 1e6;
    if (google) {
        r.api = "google-generative-ai";
        r.provider = "google";
        r.model = "gemini-2.5-pro";
        r.usage.input += r.usage.cacheRead;
    }
    return r;
}

// A conversation of `messages` requests; the lines and the requests, in order.
std::string conversation(std::mt19937_64& rng, int64_t startMs, int messages,
                         std::vector<Request>* requests = nullptr) {
    std::string text;
    for (int i = 0; i < messages; ++i) {
        const int64_t at = startMs + 1000 + static_cast<int64_t>(i) * 4000;
        text += userMessage(hex(rng, 8), at, "step " + std::to_string(i) + " of the task");
        auto r = randomRequest(rng, at + 1500, i % 3 == 2);
        text += assistantMessage(r);
        if (requests != nullptr) {
            requests->push_back(r);
        }
    }
    return text;
}

// A request that failed before any token was billed: the agent writes zeros.
std::string abortedMessage(std::mt19937_64& rng, int64_t epochMs) {
    Request r;
    r.entryID = hex(rng, 8);
    r.epochMs = epochMs;
    r.stopReason = "aborted";
    return assistantMessage(r);
}

}  // namespace

std::string isoTime(int64_t epochMs) {
    const std::time_t seconds = static_cast<std::time_t>(epochMs / 1000);
    std::tm tm{};
    ::gmtime_r(&seconds, &tm);
    char buffer[96];
    std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900,
                  tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec,
                  static_cast<int>(epochMs % 1000));
    return buffer;
}

std::string sessionHeader(std::string_view sessionID, std::string_view cwd, int64_t epochMs) {
    return json{{"type", "session"},
                {"version", 3},
                {"id", sessionID},
                {"timestamp", isoTime(epochMs)},
                {"cwd", cwd}}
               .dump() +
           "\n";
}

std::string userMessage(std::string_view entryID, int64_t epochMs, std::string_view text) {
    return json{{"type", "message"},
                {"id", entryID},
                {"parentId", nullptr},
                {"timestamp", isoTime(epochMs)},
                {"message",
                 {{"role", "user"},
                  {"content", json::array({{{"type", "text"}, {"text", text}}})},
                  {"timestamp", epochMs}}}}
               .dump() +
           "\n";
}

std::string assistantMessage(const Request& r) {
    return json{{"type", "message"},
                {"id", r.entryID},
                {"parentId", "0badc0de"},
                {"timestamp", isoTime(r.epochMs + 120)},
                {"message",
                 {{"role", "assistant"},
                  {"content", json::array({{{"type", "text"}, {"text", "done"}}})},
                  {"api", r.api},
                  {"provider", r.provider},
                  {"model", r.model},
                  {"usage", usageJSON(r.usage)},
                  {"stopReason", r.stopReason},
                  {"timestamp", r.epochMs}}}}
               .dump() +
           "\n";
}

std::string modelUsage(const Request& r, std::string_view purpose) {
    return json{{"type", "model_usage"},      {"id", r.entryID},
                {"parentId", "0badc0de"},     {"timestamp", isoTime(r.epochMs)},
                {"purpose", purpose},         {"api", r.api},
                {"provider", r.provider},     {"model", r.model},
                {"usage", usageJSON(r.usage)}}
               .dump() +
           "\n";
}

std::string taskResult(std::string_view entryID, int64_t epochMs, const Usage& aggregate) {
    return json{{"type", "message"},
                {"id", entryID},
                {"parentId", "0badc0de"},
                {"timestamp", isoTime(epochMs)},
                {"message",
                 {{"role", "toolResult"},
                  {"toolCallId", "call_1"},
                  {"toolName", "task"},
                  {"content", json::array({{{"type", "text"}, {"text", "sub-agent finished"}}})},
                  {"details", {{"usage", usageJSON(aggregate)}}},
                  {"timestamp", epochMs}}}}
               .dump() +
           "\n";
}

std::string titleSlot(std::string_view title, int64_t updatedMs, std::size_t width) {
    std::string line = json{
        {"type", "title"},
        {"v", 1},
        {"title", title},
        {"updatedAt", isoTime(updatedMs)},
        {"pad", ""}}.dump();
    // Widen the pad's string to fill the slot; a title too long for it overflows the slot.
    if (line.size() < width) {
        line.insert(line.size() - 2, std::string(width - line.size(), ' '));
    }
    return line + "\n";
}

std::string childUsage(std::string_view entryID, int64_t epochMs, std::string_view targetID,
                       const Request& child, const Usage& aggregate) {
    json childJSON = usageJSON(child.usage);
    childJSON["model"] = child.model;
    childJSON["provider"] = child.provider;
    childJSON["api"] = child.api;
    return json{{"type", "child_usage_attributed"},
                {"id", entryID},
                {"parentId", "0badc0de"},
                {"timestamp", isoTime(epochMs)},
                {"targetId", targetID},
                {"childUsage", childJSON},
                {"aggregateUsage", usageJSON(aggregate)}}
               .dump() +
           "\n";
}

void writePiHome(const std::filesystem::path& home, int sessions, int messagesPerSession,
                 uint64_t seed) {
    std::mt19937_64 rng(seed);
    for (int k = 0; k < sessions; ++k) {
        const std::string cwd = "/home/dev/proj" + std::to_string(k % 7);
        const std::filesystem::path folder = std::filesystem::path(".pi/agent/sessions") /
                                             ("--home-dev-proj" + std::to_string(k % 7) + "--");
        const int64_t start = kStartMs + static_cast<int64_t>(k) * 3'600'000;
        const std::string id = uuid(rng);
        std::vector<Request> requests;
        std::string text = sessionHeader(id, cwd, start);
        text += conversation(rng, start, messagesPerSession, &requests);
        text += abortedMessage(rng, start + 3'000'000);
        writeFile(home, folder / sessionFileName(start, id), text);
        // Every fourth session is forked half-way: the fork copies the entries before the
        // branch point (same ids, same times) and goes on with one request of its own.
        if (k % 4 == 0 && messagesPerSession >= 2) {
            const std::string forkID = uuid(rng);
            std::string fork = sessionHeader(forkID, cwd, start + 3'100'000);
            for (int i = 0; i < messagesPerSession / 2; ++i) {
                fork += assistantMessage(requests[static_cast<std::size_t>(i)]);
            }
            fork += assistantMessage(randomRequest(rng, start + 3'200'000, false));
            writeFile(home, folder / sessionFileName(start + 3'100'000, forkID), fork);
        }
    }
}

int64_t piHomeEvents(int sessions, int messagesPerSession) {
    const int64_t forks = messagesPerSession >= 2 ? (sessions + 3) / 4 : 0;
    return static_cast<int64_t>(sessions) * messagesPerSession + forks;
}

void writeOmpHome(const std::filesystem::path& home, int sessions, int messagesPerSession,
                  uint64_t seed) {
    std::mt19937_64 rng(seed);
    for (int k = 0; k < sessions; ++k) {
        const std::filesystem::path base = k % 2 == 0
                                               ? std::filesystem::path(".omp/agent")
                                               : std::filesystem::path(".omp/profiles/work/agent");
        const std::filesystem::path folder =
            base / "sessions" / ("-work-proj" + std::to_string(k % 5));
        const int64_t start = kStartMs + static_cast<int64_t>(k) * 3'600'000;
        const std::string id = uuid(rng);
        const std::string name = sessionFileName(start, id);
        std::string text = titleSlot("Session " + std::to_string(k), start, 160);
        text += sessionHeader(id, "/home/dev/work/proj" + std::to_string(k % 5), start);
        text += conversation(rng, start, messagesPerSession);
        auto side = randomRequest(rng, start + 2'000'000, false);
        side.model = "claude-haiku-4-5";
        text += modelUsage(side, "title");
        // A sub-agent: its own transcript beside the parent's, and its total repeated in the
        // parent's tool result (counted once, from the transcript).
        Usage total;
        std::string sub = sessionHeader(uuid(rng), "/home/dev/work", start + 2'100'000);
        for (int i = 0; i < 2; ++i) {
            auto r = randomRequest(rng, start + 2'100'000 + i * 1000, false);
            r.usage.reasoning = r.usage.output / 4;
            total.input += r.usage.input;
            total.output += r.usage.output;
            total.cacheRead += r.usage.cacheRead;
            total.cacheWrite += r.usage.cacheWrite;
            total.cost += r.usage.cost;
            sub += assistantMessage(r);
        }
        text += taskResult(hex(rng, 8), start + 2'200'000, total);
        writeFile(home, folder / name, text);
        writeFile(home,
                  folder / name.substr(0, name.size() - 6) / ("agent-" + hex(rng, 6) + ".jsonl"),
                  sub);
    }
}

int64_t ompHomeEvents(int sessions, int messagesPerSession) {
    return static_cast<int64_t>(sessions) * (messagesPerSession + 1 + 2);
}

void writePrimeAgentHome(const std::filesystem::path& home, int sessions, int messagesPerSession,
                         uint64_t seed) {
    std::mt19937_64 rng(seed);
    for (int k = 0; k < sessions; ++k) {
        const int64_t start = kStartMs + static_cast<int64_t>(k) * 3'600'000;
        const std::string id = uuid(rng);
        std::string text = sessionHeader(id, "/home/dev/prime" + std::to_string(k % 3), start);
        std::vector<Request> requests;
        text += conversation(rng, start, messagesPerSession, &requests);
        auto child = randomRequest(rng, start + 2'500'000, false);
        Usage aggregate = child.usage;
        for (const auto& r : requests) {
            aggregate.input += r.usage.input;
            aggregate.output += r.usage.output;
        }
        text += childUsage(hex(rng, 8), start + 2'600'000, uuid(rng), child, aggregate);
        writeFile(home, std::filesystem::path(".prime/agent/sessions") / (id + ".jsonl"), text);
    }
}

int64_t primeAgentHomeEvents(int sessions, int messagesPerSession) {
    return static_cast<int64_t>(sessions) * (messagesPerSession + 1);
}

void writeOpenClawHome(const std::filesystem::path& home, int sessions, int messagesPerSession,
                       uint64_t seed) {
    std::mt19937_64 rng(seed);
    const std::filesystem::path agent = ".openclaw/agents/main";
    std::filesystem::create_directories(home / agent / "agent");
    FixtureDB db(home / agent / "agent" / "openclaw-agent.sqlite");
    db.exec(
        "CREATE TABLE transcript_events (id INTEGER PRIMARY KEY, session_id TEXT NOT NULL, "
        "seq INTEGER NOT NULL, event_json TEXT, event_zstd BLOB)");
    db.exec("BEGIN");
    json index = json::object();
    for (int k = 0; k < sessions; ++k) {
        const int64_t start = kStartMs + static_cast<int64_t>(k) * 3'600'000;
        const std::string id = uuid(rng);
        std::string text = sessionHeader(id, "/home/dev/claw", start);
        text += conversation(rng, start, messagesPerSession);
        index["agent:main:" + id] = {{"sessionId", id}, {"updatedAt", start}};
        // Older sessions only as files, migrated ones in both places, newer ones in the
        // database with a cold archive of the same entries.
        if (k % 3 != 2) {
            writeFile(home, agent / "sessions" / (id + ".jsonl"), text);
        }
        if (k % 3 != 0) {
            int64_t seq = 0;
            std::size_t from = 0;
            while (from < text.size()) {
                const auto end = text.find('\n', from);
                const std::string line = text.substr(from, end - from);
                from = end + 1;
                if (seq % 2 == 0) {
                    db.run(
                        "INSERT INTO transcript_events (session_id, seq, event_json) "
                        "VALUES (?, ?, ?)",
                        {id, seq, line});
                } else {
                    db.run(
                        "INSERT INTO transcript_events (session_id, seq, event_zstd) "
                        "VALUES (?, ?, ?)",
                        {id, seq, zstdFrame(line)});
                }
                ++seq;
            }
        }
        if (k % 3 == 2) {
            const auto frame = zstdFrame(text);
            writeFile(home, agent / "sessions" / "cold" / (hex(rng, 64) + ".jsonl.zst"),
                      std::string_view(reinterpret_cast<const char*>(frame.data()), frame.size()));
        }
    }
    db.exec("COMMIT");
    writeFile(home, agent / "sessions" / "sessions.json", index.dump());
}

int64_t openClawHomeEvents(int sessions, int messagesPerSession) {
    return static_cast<int64_t>(sessions) * messagesPerSession;
}

void writeCraftHome(const std::filesystem::path& home, int sessions, int messagesPerSession,
                    uint64_t seed) {
    std::mt19937_64 rng(seed);
    writeFile(
        home, ".craft-agent/config.json",
        json{{"workspaces",
              json::array({{{"id", "ws-1"}, {"name", "Main"}, {"rootPath", "~/craft/main"}}})},
             {"activeWorkspaceId", "ws-1"}}
            .dump());
    for (int k = 0; k < sessions; ++k) {
        const int64_t start = kStartMs + static_cast<int64_t>(k) * 3'600'000;
        const std::string id = "260301-" + hex(rng, 6);
        const std::filesystem::path dir = std::filesystem::path("craft/main/sessions") / id;
        json header{{"id", id},
                    {"name", "Task " + std::to_string(k)},
                    {"createdAt", start},
                    {"model", "claude-sonnet-4-5"},
                    {"tokenUsage",
                     {{"inputTokens", 30000 + k},
                      {"outputTokens", 900 * messagesPerSession},
                      {"costUsd", 0.05 * messagesPerSession},
                      {"cacheReadTokens", 25000}}}};
        // Pi backend: its transcripts are the exact record. Claude backend: the Claude reader's.
        // Neither: the header is all there is.
        if (k % 3 == 0) {
            writeFile(home, dir / ".pi-sessions" / sessionFileName(start, uuid(rng)),
                      sessionHeader(id, "/home/dev/craft", start) +
                          conversation(rng, start, messagesPerSession));
        } else if (k % 3 == 1) {
            header["sdkSessionId"] = uuid(rng);
        }
        writeFile(home, dir / "session.jsonl",
                  header.dump() + "\n" + userMessage(hex(rng, 8), start + 10, "hello"));
    }
}

int64_t craftHomeEvents(int sessions, int messagesPerSession) {
    const int64_t piBackend = (sessions + 2) / 3;
    const int64_t headerOnly = sessions / 3;
    return piBackend * messagesPerSession + headerOnly;
}

}  // namespace kestrel::corpus::pi
