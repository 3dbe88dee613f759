#include "tools/agent_corpus/misc_corpus.hpp"

#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>
#include <random>

#include "tools/agent_corpus/corpus_writer.hpp"

namespace kestrel::corpus {

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

constexpr int64_t kBaseMillis = 1'787'300'000'000;  // 2026-08-21, about 08:00 UTC

std::string uuidFor(uint64_t seed, int a, int b) {
    char buffer[40];
    std::snprintf(
        buffer, sizeof buffer, "%08x-%04x-7%03x-8%03x-%012llx",
        static_cast<unsigned>(seed & 0xffffffffu), static_cast<unsigned>(a & 0xffff),
        static_cast<unsigned>(b & 0xfff), static_cast<unsigned>((a + b) & 0xfff),
        static_cast<unsigned long long>((seed * 2654435761u + a * 977 + b) & 0xffffffffffffULL));
    return buffer;
}

std::string isoTime(int64_t millis) {
    const std::time_t seconds = static_cast<std::time_t>(millis / 1000);
    std::tm tm{};
    gmtime_r(&seconds, &tm);
    char buffer[96];
    std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900,
                  tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec,
                  static_cast<int>(millis % 1000));
    return buffer;
}

std::string filler(std::mt19937_64& rng) {
    static constexpr std::string_view words[] = {"refactor", "the",  "parser", "so",   "that",
                                                 "tests",    "pass", "with",   "edge", "cases"};
    std::string out;
    const int n = 8 + static_cast<int>(rng() % 24);
    for (int i = 0; i < n; ++i) {
        out += words[rng() % std::size(words)];
        out += ' ';
    }
    return out;
}

}  // namespace

// ---- CodeBuddy / WorkBuddy ------------------------------------------------------------------

std::string buddyReply(std::string_view id, std::string_view sessionID, std::string_view cwd,
                       int64_t timestampMs, std::string_view model, const BuddyUsage& u,
                       BuddyCopies copies) {
    json record{{"type", "message"},      {"id", id},   {"parentId", "p-" + std::string(id)},
                {"sessionId", sessionID}, {"cwd", cwd}, {"timestamp", timestampMs}};
    json message{{"role", "assistant"},
                 {"content", json::array({{{"type", "output_text"}, {"text", "done"}}})}};
    if (copies != BuddyCopies::providerDataOnly) {
        json usage{{"input_tokens", u.input},
                   {"output_tokens", u.output},
                   {"total_tokens", u.input + u.output}};
        if (u.cacheRead > 0) {
            usage["cache_read_input_tokens"] = u.cacheRead;
        }
        message["usage"] = usage;
    }
    record["message"] = message;
    json providerData{{"model", model}, {"requestModelId", model}};
    if (copies != BuddyCopies::messageOnly) {
        providerData["usage"] = {
            {"inputTokens", u.input},
            {"outputTokens", u.output},
            {"totalTokens", u.input + u.output},
            {"inputTokensDetails", json::array({{{"cached_tokens", u.cacheRead}}})},
            {"outputTokensDetails", {{"reasoning_tokens", u.reasoning}}}};
    }
    record["providerData"] = providerData;
    return record.dump() + "\n";
}

std::string buddyRecord(std::string_view id, std::string_view sessionID, std::string_view type,
                        int64_t timestampMs) {
    return json{{"type", type},
                {"id", id},
                {"sessionId", sessionID},
                {"cwd", "/home/dev/app"},
                {"timestamp", timestampMs},
                {"content", "look at src/main.cpp"}}
               .dump() +
           "\n";
}

void writeBuddyHome(const fs::path& home, std::string_view dotFolder, int sessions,
                    int repliesPerSession, uint64_t seed) {
    std::mt19937_64 rng(seed);
    for (int s = 0; s < sessions; ++s) {
        const std::string session = uuidFor(seed, s, 1);
        const std::string cwd = "/home/dev/project-" + std::to_string(s % 3);
        std::string text;
        int64_t at = kBaseMillis + s * 3'600'000LL;
        for (int r = 0; r < repliesPerSession; ++r) {
            const std::string id = "msg-" + std::to_string(s) + "-" + std::to_string(r);
            text += buddyRecord("u-" + id, session, "message", at);
            text += buddyRecord("f-" + id, session, "function_call", at + 500);
            BuddyUsage u;
            u.cacheRead = r == 0 ? 0 : static_cast<int64_t>(rng() % 20000);
            u.input = u.cacheRead + 200 + static_cast<int64_t>(rng() % 4000);
            u.reasoning = static_cast<int64_t>(rng() % 300);
            u.output = u.reasoning + 20 + static_cast<int64_t>(rng() % 900);
            text += buddyReply(id, session, cwd, at + 4000, "hunyuan-turbos", u);
            at += 30'000;
        }
        writeFile(home,
                  fs::path(dotFolder) / "projects" /
                      ("-home-dev-project-" + std::to_string(s % 3)) / (session + ".jsonl"),
                  text);
    }
}

int64_t buddyEventCount(int sessions, int repliesPerSession) {
    return static_cast<int64_t>(sessions) * repliesPerSession;
}

// ---- Every Code ----------------------------------------------------------------------------

std::string everyCodeLine(std::string_view timestamp, std::string_view type,
                          const std::string& payloadJSON) {
    return json{{"timestamp", timestamp}, {"type", type}, {"payload", json::parse(payloadJSON)}}
               .dump() +
           "\n";
}

std::string everyCodeReport(std::string_view timestamp, int64_t eventSeq, int64_t totalInput,
                            int64_t totalCached, int64_t totalOutput, std::string_view model) {
    json totals{{"input_tokens", totalInput},    {"cached_input_tokens", totalCached},
                {"cache_write_input_tokens", 0}, {"output_tokens", totalOutput},
                {"reasoning_output_tokens", 0},  {"total_tokens", totalInput + totalOutput}};
    json msg{{"type", "token_count"},
             {"info",
              {{"total_token_usage", totals},
               {"requested_model", model},
               {"latest_response_model", model}}}};
    json payload{{"id", std::to_string(eventSeq)}, {"event_seq", eventSeq}, {"msg", msg}};
    return json{{"timestamp", timestamp}, {"type", "event"}, {"payload", payload}}.dump() + "\n";
}

void writeEveryCodeHome(const fs::path& home, int sessions, int reportsPerSession, uint64_t seed) {
    std::mt19937_64 rng(seed);
    for (int s = 0; s < sessions; ++s) {
        const std::string id = uuidFor(seed, s, 2);
        int64_t at = kBaseMillis + s * 3'600'000LL;
        std::string text =
            everyCodeLine(isoTime(at), "session_meta",
                          json{{"id", id}, {"cwd", "/home/dev/code-" + std::to_string(s)}}.dump());
        text += everyCodeLine(isoTime(at + 10), "turn_context",
                              json{{"model", "gpt-5"}, {"cwd", "/home/dev/code"}}.dump());
        int64_t input = 0, cached = 0, output = 0;
        for (int r = 0; r < reportsPerSession; ++r) {
            at += 20'000;
            text += everyCodeLine(isoTime(at - 5000), "response_item",
                                  json{{"type", "message"}, {"content", filler(rng)}}.dump());
            const int64_t fresh = 300 + static_cast<int64_t>(rng() % 3000);
            const int64_t reused = static_cast<int64_t>(rng() % 10000);
            input += fresh + reused;
            cached += reused;
            output += 50 + static_cast<int64_t>(rng() % 800);
            text += everyCodeReport(isoTime(at), r + 1, input, cached, output, "gpt-5");
        }
        writeFile(home,
                  fs::path(".code") / "sessions" / "2026" / "08" / "21" /
                      ("rollout-2026-08-21T08-00-00-" + id + ".jsonl"),
                  text);
    }
}

int64_t everyCodeEventCount(int sessions, int reportsPerSession) {
    return static_cast<int64_t>(sessions) * reportsPerSession;
}

// ---- Reasonix ------------------------------------------------------------------------------

std::string reasonixReply(int64_t timestampMs, std::string_view model, const ReasonixUsage& u,
                          bool nested) {
    json counts{{"promptTokens", u.hit + u.miss},
                {"completionTokens", u.completion},
                {"promptCacheHitTokens", u.hit},
                {"promptCacheMissTokens", u.miss},
                {"totalTokens", u.hit + u.miss + u.completion}};
    json record{{"type", "assistant"}, {"ts", timestampMs}, {"model", model}};
    if (nested) {
        record["usage"] = counts;
    } else {
        record.update(counts);
    }
    record["content"] = "applied the change";
    return record.dump() + "\n";
}

void writeReasonixHome(const fs::path& home, int sessions, int repliesPerSession, uint64_t seed) {
    std::mt19937_64 rng(seed);
    for (int s = 0; s < sessions; ++s) {
        std::string text;
        int64_t at = kBaseMillis + s * 3'600'000LL;
        for (int r = 0; r < repliesPerSession; ++r) {
            text += json{{"type", "user"}, {"ts", at}, {"content", filler(rng)}}.dump() + "\n";
            ReasonixUsage u{static_cast<int64_t>(rng() % 30000),
                            100 + static_cast<int64_t>(rng() % 3000),
                            30 + static_cast<int64_t>(rng() % 1500)};
            text += reasonixReply(at + 3000, r % 5 == 4 ? "deepseek-reasoner" : "deepseek-chat", u,
                                  (r % 2) == 1);
            at += 25'000;
        }
        const std::string name =
            "session-" + std::to_string(s) + (s % 2 == 1 ? ".events.jsonl" : ".jsonl");
        writeFile(home, fs::path(".reasonix") / "sessions" / name, text);
    }
}

int64_t reasonixEventCount(int sessions, int repliesPerSession) {
    return static_cast<int64_t>(sessions) * repliesPerSession;
}

// ---- DeepSeek harness (dsh) ----------------------------------------------------------------

std::string dshMeterRecord(std::string_view sessionID, int64_t timestampMs, std::string_view model,
                           const DshMeter& t) {
    return json{{"kind", "turn_end"},
                {"sessionId", sessionID},
                {"timestamp", timestampMs},
                {"model", model},
                {"tokenMeter",
                 {{"uncachedInputTokens", t.uncachedInput},
                  {"cacheReadTokens", t.cacheRead},
                  {"cacheWriteTokens", t.cacheWrite},
                  {"outputTokens", t.output}}}}
               .dump() +
           "\n";
}

void writeDshHome(const fs::path& home, int profiles, int sessionsPerProfile, int turns,
                  uint64_t seed) {
    std::mt19937_64 rng(seed);
    for (int p = 0; p < profiles; ++p) {
        for (int s = 0; s < sessionsPerProfile; ++s) {
            const std::string session = uuidFor(seed, p, s);
            std::string text;
            int64_t at = kBaseMillis + (p * 100 + s) * 3'600'000LL;
            DshMeter meter;
            for (int t = 0; t < turns; ++t) {
                text += json{{"kind", "message"},
                             {"role", "user"},
                             {"sessionId", session},
                             {"timestamp", at},
                             {"text", filler(rng)}}
                            .dump() +
                        "\n";
                meter.uncachedInput += 200 + static_cast<int64_t>(rng() % 3000);
                meter.cacheRead += static_cast<int64_t>(rng() % 20000);
                meter.cacheWrite += static_cast<int64_t>(rng() % 500);
                meter.output += 40 + static_cast<int64_t>(rng() % 900);
                text += dshMeterRecord(session, at + 2000, "deepseek-chat", meter);
                at += 30'000;
            }
            writeFile(home,
                      fs::path(".dsh") / "profiles" / ("profile-" + std::to_string(p)) /
                          "sessions" / (session + ".jsonl"),
                      text);
        }
    }
}

int64_t dshEventCount(int profiles, int sessionsPerProfile, int turns) {
    return static_cast<int64_t>(profiles) * sessionsPerProfile * turns;
}

// ---- Roo Code / Kilo Code ------------------------------------------------------------------

std::string editorUIMessages(const std::vector<EditorRequest>& requests) {
    json out = json::array();
    for (const auto& r : requests) {
        out.push_back({{"ts", r.ts - 100}, {"type", "say"}, {"say", "text"}, {"text", "Working"}});
        json inner{{"request", "<task>fix the build</task>"},
                   {"tokensIn", r.tokensIn},
                   {"tokensOut", r.tokensOut},
                   {"cacheWrites", r.cacheWrites},
                   {"cacheReads", r.cacheReads},
                   {"cost", r.cost}};
        if (r.apiProtocol) {
            inner["apiProtocol"] = *r.apiProtocol;
        }
        out.push_back(
            {{"ts", r.ts}, {"type", "say"}, {"say", "api_req_started"}, {"text", inner.dump()}});
    }
    return out.dump();
}

std::string editorHistory(const std::vector<EditorUserTurn>& turns, std::string_view cwd) {
    json out = json::array();
    for (const auto& t : turns) {
        std::string details = "<environment_details>\n# Current Workspace Directory (" +
                              std::string(cwd) + ") Files\nsrc/\n";
        if (!t.model.empty()) {
            details += "# Current Mode\n<slug>code</slug>\n<model>" + t.model + "</model>\n";
        }
        details += "</environment_details>";
        out.push_back({{"role", "user"},
                       {"ts", t.ts},
                       {"content", json::array({{{"type", "text"}, {"text", "<task>go</task>"}},
                                                {{"type", "text"}, {"text", details}}})}});
        out.push_back({{"role", "assistant"},
                       {"ts", t.ts + 50},
                       {"content", json::array({{{"type", "text"}, {"text", "ok"}}})}});
    }
    return out.dump();
}

void writeEditorTasksHome(const fs::path& home, std::string_view extensionID, int tasks,
                          int requestsPerTask, uint64_t seed) {
    std::mt19937_64 rng(seed);
    for (int t = 0; t < tasks; ++t) {
        const std::string taskID = uuidFor(seed, t, 3);
        std::vector<EditorRequest> requests;
        std::vector<EditorUserTurn> turns;
        int64_t at = kBaseMillis + t * 3'600'000LL;
        for (int r = 0; r < requestsPerTask; ++r) {
            EditorRequest q;
            q.ts = at + 1000;
            q.cacheReads = r == 0 ? 0 : static_cast<int64_t>(rng() % 20000);
            q.cacheWrites = static_cast<int64_t>(rng() % 2000);
            q.tokensIn = q.cacheReads + q.cacheWrites + 100 + static_cast<int64_t>(rng() % 3000);
            q.tokensOut = 20 + static_cast<int64_t>(rng() % 1000);
            q.cost = static_cast<double>(rng() % 1000) / 10000.0;
            q.apiProtocol = "openai";
            requests.push_back(q);
            // The model is named on the first turn and again only when it changes.
            turns.push_back({at, r == 0                     ? "anthropic/claude-sonnet-4"
                                 : r == requestsPerTask / 2 ? "openai/gpt-5"
                                                            : ""});
            at += 40'000;
        }
        const fs::path folder = fs::path(".config") / "Code" / "User" / "globalStorage" /
                                extensionID / "tasks" / taskID;
        writeFile(home, folder / "ui_messages.json", editorUIMessages(requests));
        writeFile(home, folder / "api_conversation_history.json",
                  editorHistory(turns, "/home/dev/task-" + std::to_string(t)));
        writeFile(home, folder / "task_metadata.json", R"({"files_in_context":[]})");
    }
}

int64_t editorTasksEventCount(int tasks, int requestsPerTask) {
    return static_cast<int64_t>(tasks) * requestsPerTask;
}

}  // namespace kestrel::corpus
