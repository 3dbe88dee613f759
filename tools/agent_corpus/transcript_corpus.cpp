#include "tools/agent_corpus/transcript_corpus.hpp"

#include <cstdio>
#include <nlohmann/json.hpp>
#include <random>

#include "tools/agent_corpus/corpus_writer.hpp"

namespace kestrel::corpus::transcripts {
namespace {

namespace fs = std::filesystem;
using json = nlohmann::ordered_json;

std::string line(const json& j) {
    return j.dump() + "\n";
}

// "2026-08-21T10:<mm>:<ss>.000Z" for the n-th record of a day, one every 7 seconds.
std::string isoAt(int day, int n) {
    const int seconds = n * 7;
    char buf[40];
    std::snprintf(buf, sizeof buf, "2026-08-%02dT%02d:%02d:%02d.000Z", 1 + day % 28,
                  (10 + seconds / 3600) % 24, seconds / 60 % 60, seconds % 60);
    return buf;
}

std::string hexID(std::mt19937_64& rng, int digits) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out;
    for (int i = 0; i < digits; ++i) {
        out += kHex[rng() % 16];
    }
    return out;
}

std::string uuid(std::mt19937_64& rng) {
    return hexID(rng, 8) + "-" + hexID(rng, 4) + "-" + hexID(rng, 4) + "-" + hexID(rng, 4) + "-" +
           hexID(rng, 12);
}

int64_t between(std::mt19937_64& rng, int64_t lo, int64_t hi) {
    return lo + static_cast<int64_t>(rng() % static_cast<uint64_t>(hi - lo + 1));
}

std::string prose(std::mt19937_64& rng, int words) {
    static constexpr const char* kWords[] = {"the",   "reader", "checks", "each",  "line",
                                             "cache", "token",  "model",  "fixes", "test"};
    std::string out;
    for (int i = 0; i < words; ++i) {
        out += kWords[rng() % 10];
        out += ' ';
    }
    return out;
}

json geminiTokensJSON(const GeminiTokens& t) {
    return {{"input", t.input},       {"output", t.output}, {"cached", t.cached},
            {"thoughts", t.thoughts}, {"tool", t.tool},     {"total", t.total()}};
}

json geminiMessageJSON(const GeminiMessage& m) {
    json j{{"id", m.id}, {"timestamp", m.timestamp}, {"type", m.type}};
    if (m.type == "user") {
        j["content"] = "please fix the failing test";
        return j;
    }
    j["content"] = "Done: the parser now skips blank lines.";
    j["model"] = m.model;
    j["thoughts"] = json::array();
    j["tokens"] = m.tokens ? geminiTokensJSON(*m.tokens) : json(nullptr);
    return j;
}

}  // namespace

// ---- Gemini ----

std::string geminiMetadataLine(std::string_view sessionID, std::string_view startTime,
                               std::string_view kind) {
    return line({{"sessionId", sessionID},
                 {"projectHash", "4f1c"},
                 {"startTime", startTime},
                 {"lastUpdated", startTime},
                 {"kind", kind}});
}

std::string geminiMessageLine(const GeminiMessage& message) {
    return line(geminiMessageJSON(message));
}

std::string geminiLegacySession(std::string_view sessionID,
                                const std::vector<GeminiMessage>& messages) {
    json doc{{"sessionId", sessionID},
             {"projectHash", "4f1c"},
             {"startTime", messages.empty() ? "" : messages.front().timestamp},
             {"lastUpdated", messages.empty() ? "" : messages.back().timestamp},
             {"messages", json::array()}};
    for (const auto& m : messages) {
        doc["messages"].push_back(geminiMessageJSON(m));
    }
    return doc.dump(2) + "\n";
}

void writeGeminiHome(const fs::path& home, int sessions, int messages, uint64_t seed) {
    std::mt19937_64 rng(seed);
    const fs::path root = ".gemini";
    corpus::writeFile(home, root / "projects.json",
                      line({{"projects", {{"/home/dev/kestrel", "kestrel"}}}}));
    corpus::writeFile(home, root / "tmp/webapp/.project_root", "/home/dev/webapp\n");
    for (int s = 0; s < sessions; ++s) {
        const std::string sessionID = uuid(rng);
        const fs::path chats = root / "tmp" / (s % 2 == 0 ? "kestrel" : "webapp") / "chats";
        const std::string stem =
            "session-2026-08-" + std::to_string(10 + s % 18) + "T10-15-" + sessionID.substr(0, 8);
        std::vector<GeminiMessage> all;
        std::string lines = geminiMetadataLine(sessionID, isoAt(s, 0));
        for (int m = 0; m < messages; ++m) {
            GeminiMessage prompt{"u-" + std::to_string(s) + "-" + std::to_string(m),
                                 isoAt(s, 2 * m), "user", "", std::nullopt};
            GeminiTokens t;
            t.cached = between(rng, 0, 30000);
            t.input = t.cached + between(rng, 200, 9000);
            t.output = between(rng, 20, 2000);
            t.thoughts = between(rng, 0, 1500);
            t.tool = m % 5 == 0 ? between(rng, 0, 300) : 0;
            GeminiMessage reply{"g-" + std::to_string(s) + "-" + std::to_string(m),
                                isoAt(s, 2 * m + 1), "gemini", "gemini-2.5-pro", t};
            all.push_back(prompt);
            all.push_back(reply);
            lines += geminiMessageLine(prompt);
            if (m % 3 == 0) {
                // Appended first while streaming, then again with its final counts.
                GeminiMessage partial = reply;
                partial.tokens.reset();
                lines += geminiMessageLine(partial);
            }
            lines += geminiMessageLine(reply);
        }
        if (s % 4 == 3) {
            corpus::writeFile(home, chats / (stem + ".json"), geminiLegacySession(sessionID, all));
            continue;
        }
        corpus::writeFile(home, chats / (stem + ".jsonl"), lines);
        if (s == 0) {
            // Resumed from a legacy session: the old document stays beside its copy.
            corpus::writeFile(home, chats / (stem + ".json"), geminiLegacySession(sessionID, all));
        }
    }
}

int64_t geminiExpectedEvents(int sessions, int messages) {
    return static_cast<int64_t>(sessions) * messages;
}

// ---- Antigravity ----

std::string antigravityUserLine(int step, std::string_view createdAt, std::string_view content) {
    return line({{"step_index", step},
                 {"source", "USER_EXPLICIT"},
                 {"type", "USER_INPUT"},
                 {"status", "DONE"},
                 {"created_at", createdAt},
                 {"content", content}});
}

std::string antigravityModelLine(int step, std::string_view createdAt, std::string_view content,
                                 std::string_view thinking) {
    return line({{"step_index", step},
                 {"source", "MODEL"},
                 {"type", "PLANNER_RESPONSE"},
                 {"status", "DONE"},
                 {"created_at", createdAt},
                 {"content", content},
                 {"thinking", thinking},
                 {"tool_calls", json::array()}});
}

void writeAntigravityHome(const fs::path& home, int conversations, int steps, uint64_t seed) {
    std::mt19937_64 rng(seed);
    for (int c = 0; c < conversations; ++c) {
        const fs::path file = fs::path(".gemini/antigravity/brain") / uuid(rng) /
                              ".system_generated/logs/transcript.jsonl";
        std::string text;
        int index = 0;
        for (int s = 0; s < steps; ++s) {
            std::string prompt = prose(rng, 12);
            if (s == 0) {
                prompt = "Model Selection from None to " +
                         std::string(c % 2 == 0 ? "Gemini 3.5 Flash (Medium)"
                                                : "Claude Sonnet 4.5 (Thinking)") +
                         "\n" + prompt;
            }
            text += antigravityUserLine(index++, isoAt(c, 2 * s), prompt);
            text += line({{"step_index", index++},
                          {"source", "SYSTEM"},
                          {"type", "CHECKPOINT"},
                          {"status", "DONE"},
                          {"created_at", isoAt(c, 2 * s)}});
            text += antigravityModelLine(index++, isoAt(c, 2 * s + 1),
                                         prose(rng, static_cast<int>(between(rng, 20, 200))),
                                         prose(rng, static_cast<int>(between(rng, 0, 80))));
        }
        corpus::writeFile(home, file, text);
    }
}

int64_t antigravityExpectedEvents(int conversations, int steps) {
    return static_cast<int64_t>(conversations) * steps;
}

// ---- Kimi ----

namespace {

json kimiUsageJSON(const KimiUsage& u) {
    return {{"input_other", u.inputOther},
            {"output", u.output},
            {"input_cache_read", u.cacheRead},
            {"input_cache_creation", u.cacheCreation}};
}

json kimiStatusMessage(const std::optional<KimiUsage>& usage, std::string_view messageID) {
    return {{"type", "StatusUpdate"},
            {"payload",
             {{"context_tokens", usage ? usage->inputOther + usage->cacheRead : 0},
              {"max_context_tokens", 262144},
              {"token_usage", usage ? kimiUsageJSON(*usage) : json(nullptr)},
              {"message_id", messageID}}}};
}

KimiUsage randomKimiUsage(std::mt19937_64& rng) {
    return {between(rng, 100, 4000), between(rng, 20, 1500), between(rng, 0, 60000),
            between(rng, 0, 2000)};
}

}  // namespace

std::string kimiStatusLine(double timestamp, const std::optional<KimiUsage>& usage,
                           std::string_view messageID) {
    return line({{"timestamp", timestamp}, {"message", kimiStatusMessage(usage, messageID)}});
}

std::string kimiSubagentLine(double timestamp, const KimiUsage& usage, std::string_view messageID) {
    return line(
        {{"timestamp", timestamp},
         {"message",
          {{"type", "SubagentEvent"},
           {"payload",
            {{"task_tool_call_id", "call_1"}, {"event", kimiStatusMessage(usage, messageID)}}}}}});
}

std::string kimiCodeUsageLine(int64_t timeMs, std::string_view model, const KimiUsage& usage,
                              std::string_view scope, std::string_view agent) {
    return line({{"type", "usage.record"},
                 {"agentId", agent},
                 {"model", model},
                 {"usage",
                  {{"inputOther", usage.inputOther},
                   {"output", usage.output},
                   {"inputCacheRead", usage.cacheRead},
                   {"inputCacheCreation", usage.cacheCreation}}},
                 {"usageScope", scope},
                 {"time", timeMs}});
}

std::string kimiCodeForkedLine(int64_t timeMs, std::string_view agent) {
    return line({{"type", "forked"}, {"agentId", agent}, {"time", timeMs}});
}

void writeKimiHome(const fs::path& home, int sessions, int steps, uint64_t seed) {
    std::mt19937_64 rng(seed);
    const double t0 = 1755771330.0;
    std::string firstCLI, firstCLIFolder, firstCode;
    for (int s = 0; s < sessions; ++s) {
        if (s % 2 == 0) {
            const std::string folder = hexID(rng, 32) + "/" + uuid(rng);
            std::string text = line({{"type", "metadata"}, {"protocol_version", "1.10"}});
            for (int i = 0; i < steps; ++i) {
                const double ts = t0 + s * 3600 + i * 9.5;
                text +=
                    line({{"timestamp", ts - 1},
                          {"message", {{"type", "TurnBegin"}, {"payload", {{"input", "go"}}}}}});
                text += kimiStatusLine(ts, randomKimiUsage(rng), "chatcmpl-" + hexID(rng, 24));
            }
            text += kimiStatusLine(t0 + s * 3600 + steps * 9.5, std::nullopt, "chatcmpl-none");
            text += kimiStatusLine(t0 + s * 3600 + steps * 9.5 + 1, KimiUsage{}, "chatcmpl-zero");
            corpus::writeFile(home, fs::path(".kimi/sessions") / folder / "wire.jsonl", text);
            if (firstCLI.empty()) {
                firstCLI = text;
                firstCLIFolder = folder;
            }
        } else {
            const std::string session = "session_" + uuid(rng);
            const fs::path dir = fs::path(".kimi-code/sessions/wd_webapp_3f2a9c1b7d4e") / session;
            std::string text = line(
                {{"type", "metadata"}, {"protocol_version", "1.5"}, {"created_at", 1755771330480}});
            for (int i = 0; i < steps; ++i) {
                text += kimiCodeUsageLine(1755771330480 + s * 3'600'000LL + i * 9'500LL,
                                          "kimi-for-coding", randomKimiUsage(rng),
                                          i % 7 == 6 ? "session" : "turn");
            }
            text += kimiCodeUsageLine(1755771330480 + s * 3'600'000LL + steps * 9'500LL,
                                      "kimi-for-coding", KimiUsage{});
            corpus::writeFile(home, dir / "agents/main/wire.jsonl", text);
            corpus::appendFile(home, ".kimi-code/session_index.jsonl",
                               line({{"sessionId", session.substr(8)},
                                     {"sessionDir", (home / dir).string()},
                                     {"workDir", "/home/dev/webapp"}}));
            if (firstCode.empty()) {
                firstCode = text;
            }
        }
    }
    if (sessions < 2) {
        return;
    }
    // A Kimi CLI fork: the parent's lines copied verbatim into another session.
    const auto md5 = firstCLIFolder.substr(0, firstCLIFolder.find('/'));
    corpus::writeFile(home, fs::path(".kimi/sessions") / md5 / uuid(rng) / "wire.jsonl", firstCLI);
    // A sub-agent's steps, in its own log and forwarded into its parent's.
    std::string subagent, forwarded;
    for (int i = 0; i < 2; ++i) {
        const auto usage = randomKimiUsage(rng);
        const auto id = "chatcmpl-sub-" + hexID(rng, 16);
        subagent += kimiStatusLine(t0 + 100 + i, usage, id);
        forwarded += kimiSubagentLine(t0 + 100.25 + i, usage, id);
    }
    corpus::writeFile(home, fs::path(".kimi/sessions") / firstCLIFolder / "subagents/a1/wire.jsonl",
                      subagent);
    corpus::appendFile(home, fs::path(".kimi/sessions") / firstCLIFolder / "wire.jsonl", forwarded);
    // A Kimi Code fork: its source's records, the marker, then one step of its own.
    std::string fork = firstCode + kimiCodeForkedLine(1755771999000) +
                       kimiCodeUsageLine(1755772000000, "kimi-for-coding", randomKimiUsage(rng));
    corpus::writeFile(home,
                      fs::path(".kimi-code/sessions/wd_webapp_3f2a9c1b7d4e") /
                          ("session_" + uuid(rng)) / "agents/main/wire.jsonl",
                      fork);
}

int64_t kimiExpectedEvents(int sessions, int steps) {
    return static_cast<int64_t>(sessions) * steps + (sessions >= 2 ? 3 : 0);
}

// ---- Grok ----

std::string grokTurnLine(std::string_view sessionID, std::optional<int> promptIndex,
                         const GrokUsage& usage, std::string_view timestamp) {
    json u{{"inputTokens", usage.input},
           {"outputTokens", usage.output},
           {"totalTokens", usage.total()},
           {"cachedReadTokens", usage.cachedRead}};
    if (usage.cachedWrite) {
        u["cachedWriteTokens"] = *usage.cachedWrite;
    }
    if (usage.thoughts) {
        u["thoughtTokens"] = *usage.thoughts;
    }
    json update{{"sessionUpdate", "turn_completed"}, {"stopReason", "end_turn"}};
    if (promptIndex) {
        update["prompt_index"] = *promptIndex;
    }
    update["_meta"] = {{"usage", u}};
    return line({{"jsonrpc", "2.0"},
                 {"method", "session/update"},
                 {"timestamp", timestamp},
                 {"params", {{"sessionId", sessionID}, {"update", update}}}});
}

std::string grokChunkLine(std::string_view sessionID, std::string_view text) {
    return line({{"jsonrpc", "2.0"},
                 {"method", "session/update"},
                 {"params",
                  {{"sessionId", sessionID},
                   {"update",
                    {{"sessionUpdate", "agent_message_chunk"},
                     {"content", {{"type", "text"}, {"text", text}}}}}}}});
}

std::string grokChatRow(int promptIndex, std::string_view role, std::string_view model) {
    return line({{"role", role},
                 {"prompt_index", promptIndex},
                 {"model_id", model},
                 {"content", role == "user" ? "add a test" : "added"}});
}

void writeGrokHome(const fs::path& home, int sessions, int turns, uint64_t seed) {
    std::mt19937_64 rng(seed);
    for (int s = 0; s < sessions; ++s) {
        const std::string sessionID = uuid(rng);
        const fs::path dir = fs::path(".grok/sessions/%2Fhome%2Fdev%2Fkestrel") / sessionID;
        std::string updates, chat;
        for (int t = 0; t < turns; ++t) {
            const std::string model = t % 4 == 3 ? "grok-code-fast-1" : "grok-4";
            chat += grokChatRow(t, "user", model);
            updates += grokChunkLine(sessionID, prose(rng, 8));
            GrokUsage u;
            u.cachedRead = between(rng, 0, 20000);
            u.cachedWrite =
                t % 2 == 0 ? std::optional<int64_t>(between(rng, 0, 500)) : std::nullopt;
            u.input = u.cachedRead + u.cachedWrite.value_or(0) + between(rng, 100, 5000);
            u.thoughts = between(rng, 0, 400);
            u.output = *u.thoughts + between(rng, 10, 1500);
            updates += grokTurnLine(sessionID, t, u, isoAt(s, t));
        }
        corpus::writeFile(home, dir / "chat_history.jsonl", chat);
        corpus::writeFile(home, dir / "summary.json",
                          line({{"session_id", sessionID}, {"model_id", "grok-4"}}));
        corpus::writeFile(home, dir / "updates.jsonl", updates);
    }
}

int64_t grokExpectedEvents(int sessions, int turns) {
    return static_cast<int64_t>(sessions) * turns;
}

// ---- Copilot ----

std::string copilotShutdownLine(std::string_view eventID, std::string_view timestamp,
                                const std::vector<std::pair<std::string, CopilotUsage>>& models) {
    json metrics = json::object();
    for (const auto& [model, u] : models) {
        json usage{{"inputTokens", u.input},
                   {"outputTokens", u.output},
                   {"cacheReadTokens", u.cacheRead},
                   {"cacheWriteTokens", u.cacheWrite}};
        if (u.reasoning) {
            usage["reasoningTokens"] = *u.reasoning;
        }
        metrics[model] = {{"requests", {{"count", 3}, {"cost", 1}}}, {"usage", usage}};
    }
    return line({{"type", "session.shutdown"},
                 {"data",
                  {{"modelMetrics", metrics},
                   {"sessionStartTime", 1755771330480},
                   {"currentModel", models.empty() ? "" : models.front().first}}},
                 {"id", eventID},
                 {"timestamp", timestamp},
                 {"parentId", nullptr}});
}

std::string copilotMessageLine(std::string_view eventID, std::string_view timestamp,
                               std::string_view text) {
    return line({{"type", "assistant.message"},
                 {"data", {{"messageId", eventID}, {"content", text}, {"outputTokens", 42}}},
                 {"id", eventID},
                 {"timestamp", timestamp},
                 {"parentId", nullptr}});
}

std::string copilotSpanLine(std::string_view traceID, std::string_view spanID,
                            std::string_view model, const CopilotUsage& usage,
                            OtelSpelling spelling, OtelShape shape, std::string_view operation) {
    std::vector<std::pair<std::string, json>> attributes{
        {"gen_ai.operation.name", operation},
        {"gen_ai.request.model", model},
        {"gen_ai.response.model", model},
        {"gen_ai.usage.input_tokens", usage.input},
        {"gen_ai.usage.output_tokens", usage.output},
    };
    if (spelling == OtelSpelling::current) {
        attributes.emplace_back("gen_ai.usage.cache_read.input_tokens", usage.cacheRead);
        attributes.emplace_back("gen_ai.usage.cache_creation.input_tokens", usage.cacheWrite);
        if (usage.reasoning) {
            attributes.emplace_back("gen_ai.usage.reasoning.output_tokens", *usage.reasoning);
        }
    } else {
        attributes.emplace_back("gen_ai.usage.cached_input_tokens", usage.cacheRead);
        if (usage.reasoning) {
            attributes.emplace_back("gen_ai.usage.reasoning_output_tokens", *usage.reasoning);
        }
    }
    json span{{"traceId", traceID},
              {"spanId", spanID},
              {"name", std::string(operation) + " " + std::string(model)},
              {"startTimeUnixNano", "1755771330000000000"},
              {"endTimeUnixNano", "1755771331500000000"}};
    if (shape == OtelShape::objectAttributes) {
        json object = json::object();
        for (const auto& [k, v] : attributes) {
            object[k] = v;
        }
        span["attributes"] = object;
        return line(span);
    }
    json list = json::array();
    for (const auto& [k, v] : attributes) {
        // OTLP's JSON encoding writes 64-bit integers as strings.
        list.push_back(
            {{"key", k},
             {"value", v.is_string() ? json{{"stringValue", v}}
                                     : json{{"intValue", std::to_string(v.get<int64_t>())}}}});
    }
    span["attributes"] = list;
    return line(
        {{"resourceSpans",
          json::array({{{"resource", {{"attributes", json::array()}}},
                        {"scopeSpans", json::array({{{"spans", json::array({span})}}})}}})}});
}

void writeCopilotHome(const fs::path& home, int sessions, int segments, uint64_t seed) {
    std::mt19937_64 rng(seed);
    std::string telemetry;
    auto randomUsage = [&] {
        CopilotUsage u;
        u.cacheRead = between(rng, 0, 40000);
        u.cacheWrite = between(rng, 0, 3000);
        u.input = u.cacheRead + u.cacheWrite + between(rng, 100, 8000);
        u.output = between(rng, 10, 3000);
        return u;
    };
    for (int s = 0; s < sessions; ++s) {
        const std::string sessionID = uuid(rng);
        std::string events;
        for (int g = 0; g < segments; ++g) {
            events += line({{"type", "session.start"},
                            {"data", {{"sessionId", sessionID}}},
                            {"id", uuid(rng)},
                            {"timestamp", isoAt(s, g * 10)}});
            events += copilotMessageLine(uuid(rng), isoAt(s, g * 10 + 1), prose(rng, 10));
            events += copilotShutdownLine(
                uuid(rng), isoAt(s, g * 10 + 5),
                {{"claude-sonnet-4.5", randomUsage()}, {"gpt-5-mini", randomUsage()}});
            auto span = randomUsage();
            span.reasoning = between(rng, 0, span.output);
            telemetry +=
                copilotSpanLine(hexID(rng, 32), hexID(rng, 16), "claude-sonnet-4.5", span,
                                g % 2 == 0 ? OtelSpelling::current : OtelSpelling::older,
                                s % 2 == 0 ? OtelShape::objectAttributes : OtelShape::otlpList);
        }
        corpus::writeFile(home, fs::path(".copilot/session-state") / sessionID / "events.jsonl",
                          events);
    }
    corpus::writeFile(home, ".copilot/otel/copilot-otel.jsonl", telemetry);
}

int64_t copilotExpectedEvents(int sessions, int segments) {
    return static_cast<int64_t>(sessions) * segments * 3;
}

}  // namespace kestrel::corpus::transcripts
