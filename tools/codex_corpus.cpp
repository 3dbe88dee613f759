#include "tools/codex_corpus.hpp"

#include <zstd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <memory>
#include <string_view>
#include <system_error>
#include <utility>

#include "tools/corpus_text.hpp"

namespace kestrel::corpus {
namespace {

namespace fs = std::filesystem;
using namespace detail;

// Text pools, already escaped for a JSON string (see appendSlice). Tool output now and then
// quotes the agent's own record names, as it does when the user works on code that reads them.
constexpr std::array<std::string_view, 22> kCodeLines = {
    "$ilet $w = self.$w.get($n)?;\\n",
    "$ilet $w = self.$w.get($n)?;\\n",
    "fn $w_$w(&mut self, $w: usize) -> Result<$T> {\\n",
    "$iOk($T::new($w, $n))\\n",
    "export function $w$T($w: number): string {\\n",
    "def $w_$w(self, $w):\\n        return self.$w[$n]\\n",
    "   Compiling $w-$w v0.$n.0 (/home/dev/src/$w)\\n",
    "test $w::tests::$w_$w ... ok\\n",
    "error[E0308]: mismatched types\\n  --> src/$w.rs:$n:$n\\n",
    "src/$w/$w.rs:$n:    let $w = $w_$w(&$w);\\n",
    " M src/$w/$w.rs\\n",
    "drwxr-xr-x  5 dev dev  4096 Oct  3 10:15 $w\\n",
    "{\\\"type\\\":\\\"event_msg\\\",\\\"payload\\\":{\\\"type\\\":\\\"token_count\\\","
    "\\\"info\\\":null}}\\n",
    "$i// the turn_context carries the model for the $w\\n",
    "$iassert_eq!(session_meta.$w, $n);\\n",
    "    log::debug!(\\\"$w failed: {}\\\", $w);\\n",
    "// $w \u2192 $w (na\u00efve caf\u00e9) \u4e2d\u6587 \u2713\\n",
    "@@ -$n,7 +$n,8 @@\\n+    $w += $n;\\n-    $w -= $n;\\n",
    "\\t$w: $n\\n",
    "$ifor $w in $w.iter().take($n) { $w.push($w); }\\n",
    "$ifor $w in $w.iter().take($n) { $w.push($w); }\\n",
    "$ireturn $T::from($w, $n);\\n",
};

constexpr std::array<std::string_view, 9> kProse = {
    "I'll $v the `$w` in `src/$w/$w.rs` so the $w stays consistent. ",
    "**Checking the $w**\\n\\nI need to $v how `$T::$w` handles an empty $w. ",
    "The $w depends on the $w, so let me $v that first. ",
    "\\n\\n- $v `$T::$w()`\\n- $v the $w tests\\n\\n",
    "Let me look at how $w and $w interact before changing anything. ",
    "The test fails because the $w is read twice; the fix is to $v the $w. ",
    "Done: the $w and the $w now agree, and the tests pass.\\n",
    "Should the \\\"$w\\\" option also $v the $w? ",
    "Wait \u2014 the $w was already $ved. ",
};

// Commands without quotes or backslashes: they sit in a JSON document inside a JSON string.
constexpr std::array<std::string_view, 10> kCommands = {
    "rg -n token_count src",    "cargo test -p core",
    "sed -n 1,200p src/lib.rs", "ls -la",
    "git diff --stat",          "npm test -- --watch=false",
    "pytest -q tests",          "cargo build --release",
    "git status --short",       "cat Cargo.toml"};

constexpr std::array<std::string_view, 5> kProjectNames = {"kestrel", "web-frontend", "infra",
                                                           "data-pipeline", "api-gateway"};
constexpr std::array<std::string_view, 3> kEfforts = {"low", "medium", "high"};
// Rollout names and date folders are in the writer's local time; the line times are UTC.
constexpr std::array<int64_t, 6> kZoneOffsetsHours = {-7, -5, 0, 1, 2, 8};

struct Flavour {  // how one agent build writes its files
    std::string_view cliVersion;
    bool relativeResets;  // resets_in_seconds instead of resets_at, no plan_type
    bool jsonOutputs;     // tool output as a JSON document in a string
};
constexpr std::array<Flavour, 5> kFlavours = {{{"0.36.0", true, true},
                                               {"0.42.0", false, true},
                                               {"0.46.0", false, true},
                                               {"0.58.0", false, false},
                                               {"0.63.0", false, false}}};
constexpr std::array<std::string_view, 3> kOriginators = {"codex_cli_rs", "codex_vscode",
                                                          "codex_exec"};
constexpr std::array<std::string_view, 3> kSources = {"cli", "vscode", "exec"};

std::string_view pickModel(Rng& rng) {
    const uint64_t r = rng.below(100);
    return r < 45   ? "gpt-5-codex"
           : r < 65 ? "gpt-5"
           : r < 90 ? "gpt-5.1-codex"
                    : "gpt-5.1-codex-mini";
}

struct Totals {
    int64_t input = 0;  // cached included
    int64_t cached = 0;
    int64_t output = 0;  // reasoning included
    int64_t reasoning = 0;
};

struct Session {
    std::string id;
    std::string cwd;
    std::string forkedFrom;
    std::string_view model;
    std::string_view effort;
    std::size_t originator = 0;
    Flavour flavour{};
    int64_t clock = 0;    // ms since the epoch
    int64_t context = 0;  // tokens in the prompt, grows through the session
    Totals totals;
};

struct Mark {  // a turn boundary near a rollout's start, where a fork may copy up to
    int64_t bytes = 0;
    int64_t lines = 0;
    int64_t tokenCounts = 0;
    Totals totals;
    int64_t context = 0;
    std::string_view model;
};

struct Written {
    CodexRollout rollout;
    std::string cwd;
    std::vector<Mark> marks;
};

struct Account {                // the rate-limit windows, shared by every session of the user
    int64_t primaryTenths = 0;  // used percent, in tenths
    int64_t secondaryTenths = 0;
    int64_t primaryReset = 0;  // epoch seconds
    int64_t secondaryReset = 0;
    std::string_view plan;
};

struct Call {
    std::string id;
    bool patch = false;  // apply_patch rather than a shell command
};

constexpr std::size_t kFlushAt = 8u << 20;
constexpr int64_t kLargeOutput = 100'000;
constexpr int64_t kForkHeadLimit = 6 << 20;  // how much of a session a fork may copy
constexpr int64_t kContextWindow = 272'000;
constexpr int64_t kPrimaryWindowMinutes = 300;
constexpr int64_t kSecondaryWindowMinutes = 10'080;

class Generator {
  public:
    explicit Generator(const CodexCorpusOptions& o) : options_(o), rng_(o.seed) {
        Rng poolRng(o.seed ^ 0xc0de5eedULL);
        code_ = buildPool(poolRng, kCodeLines, 3u << 20);
        prose_ = buildPool(poolRng, kProse, 256u << 10);
    }

    std::expected<CodexCorpusSummary, std::string> run();

  private:
    // --- files -------------------------------------------------------------------------
    bool openFile(const fs::path& path);
    bool closeFile();
    int64_t fileBytes() const { return file_.bytes(); }
    void beginLine(Session& s, std::string_view type, int64_t stepMs);
    void endLine();
    void mark(const Session& s);
    fs::path rolloutPath(const Session& s) const;

    // --- line shapes -------------------------------------------------------------------
    void sessionMeta(Session& s);
    void turnContext(Session& s);
    void userTurn(Session& s, bool first);
    void reasoning(Session& s);
    void toolCall(Session& s, const Call& call);
    int64_t toolOutput(Session& s, const Call& call, int64_t budget);
    void assistantAnswer(Session& s);
    void counts(const Totals& t);
    void rateLimits(Session& s);
    void tokenCount(Session& s, const Totals* last);
    void request(Session& s, int64_t freshTokens, int64_t outputHint);
    void compacted(Session& s);
    void eventMessage(Session& s, std::string_view type, int64_t len);

    void writeTurns(Session& s, int64_t budget, bool fresh);
    bool replay(const Written& parent, const Mark& m, Session& fork);
    std::expected<void, std::string> archive(std::vector<Written>& written);

    const CodexCorpusOptions& options_;
    Rng rng_;
    std::string code_;
    std::string prose_;
    std::string scratch_;
    int64_t zoneOffsetMs_ = 0;
    Account account_;

    std::string buf_;
    std::string error_;
    OutputFile file_{buf_, error_};
    std::size_t lineStart_ = 0;
    CodexRollout current_;
    std::vector<Mark> marks_;

    CodexCorpusSummary summary_;
};

bool Generator::openFile(const fs::path& path) {
    if (!file_.open(path))
        return false;
    current_ = CodexRollout{};
    current_.path = path;
    marks_.clear();
    return true;
}

bool Generator::closeFile() {
    const bool ok = file_.close();
    current_.bytes = file_.flushed();
    summary_.textBytes += file_.flushed();
    return ok;
}

// Every line starts with its time, then its type: the envelope's order in the agent's files.
void Generator::beginLine(Session& s, std::string_view type, int64_t stepMs) {
    s.clock += std::max<int64_t>(stepMs, 1);  // line times strictly increase within a session
    lineStart_ = buf_.size();
    buf_ += "{\"timestamp\":\"";
    appendTimestamp(buf_, s.clock);
    buf_ += "\",\"type\":\"";
    buf_ += type;
    buf_ += "\",\"payload\":";
}

void Generator::endLine() {
    buf_ += '}';
    summary_.longestLine =
        std::max(summary_.longestLine, static_cast<int64_t>(buf_.size() - lineStart_));
    buf_.push_back('\n');
    ++current_.lines;
    if (buf_.size() >= kFlushAt)
        file_.flush();  // a failure is reported by closeFile
}

void Generator::mark(const Session& s) {
    if (fileBytes() <= kForkHeadLimit) {
        marks_.push_back(
            {fileBytes(), current_.lines, current_.tokenCountLines, s.totals, s.context, s.model});
    }
}

fs::path Generator::rolloutPath(const Session& s) const {
    const int64_t local = s.clock + zoneOffsetMs_;
    return options_.home / ".codex" / "sessions" / datePath(local) /
           ("rollout-" + fileTime(local) + "-" + s.id + ".jsonl");
}

void Generator::sessionMeta(Session& s) {
    beginLine(s, "session_meta", 0);
    buf_ += "{\"id\":\"";
    buf_ += s.id;
    buf_ += '"';
    if (!s.forkedFrom.empty()) {
        buf_ += ",\"forked_from_id\":\"";
        buf_ += s.forkedFrom;
        buf_ += '"';
    }
    buf_ += ",\"timestamp\":\"";
    appendTimestamp(buf_, s.clock);
    buf_ += "\",\"cwd\":\"";
    buf_ += s.cwd;
    buf_ += "\",\"originator\":\"";
    buf_ += kOriginators[s.originator];
    buf_ += "\",\"cli_version\":\"";
    buf_ += s.flavour.cliVersion;
    buf_ += "\",\"instructions\":\"";
    appendSlice(buf_, rng_, prose_, rng_.between(6'000, 24'000));
    buf_ += "\",\"source\":\"";
    buf_ += kSources[s.originator];
    buf_ += "\",\"model_provider\":\"openai\",\"git\":{\"commit_hash\":\"";
    appendChars(buf_, rng_, kHex, 40);
    buf_ += "\",\"branch\":\"";
    buf_ += rng_.chance(0.6) ? "main" : "feature/quota-sync";
    buf_ += "\",\"repository_url\":\"git@example.com:dev/";
    buf_ += s.cwd.substr(s.cwd.rfind('/') + 1);
    buf_ += ".git\"}}";
    endLine();
}

void Generator::turnContext(Session& s) {
    beginLine(s, "turn_context", rng_.between(2, 40));
    buf_ += "{\"cwd\":\"";
    buf_ += s.cwd;
    buf_ +=
        "\",\"approval_policy\":\"on-request\",\"sandbox_policy\":{\"mode\":\"workspace-write\","
        "\"network_access\":false,\"exclude_tmpdir_env_var\":false,\"exclude_slash_tmp\":false},"
        "\"model\":\"";
    buf_ += s.model;
    buf_ += "\",\"effort\":\"";
    buf_ += s.effort;
    buf_ += "\",\"summary\":\"auto\"}";
    endLine();
}

void Generator::eventMessage(Session& s, std::string_view type, int64_t len) {
    beginLine(s, "event_msg", rng_.between(1, 30));
    buf_ += "{\"type\":\"";
    buf_ += type;
    buf_ += type == "user_message" ? "\",\"message\":\"" : "\",\"text\":\"";
    buf_ += scratch_.substr(0, static_cast<std::size_t>(len));
    if (type == "user_message") {
        buf_ += "\",\"images\":[]}";
    } else {
        buf_ += "\"}";
    }
    endLine();
}

// The user's prompt: the first of a session comes after the project's standing instructions
// and a description of the environment.
void Generator::userTurn(Session& s, bool first) {
    if (first) {
        if (rng_.chance(0.5)) {
            beginLine(s, "response_item", rng_.between(5, 50));
            buf_ +=
                "{\"type\":\"message\",\"role\":\"user\",\"content\":[{\"type\":\"input_text\","
                "\"text\":\"<user_instructions>\\n\\n";
            appendSlice(buf_, rng_, prose_, rng_.between(1'000, 6'000));
            buf_ += "\\n\\n</user_instructions>\"}]}";
            endLine();
        }
        beginLine(s, "response_item", rng_.between(1, 10));
        buf_ +=
            "{\"type\":\"message\",\"role\":\"user\",\"content\":[{\"type\":\"input_text\","
            "\"text\":\"<environment_context>\\n  <cwd>";
        buf_ += s.cwd;
        buf_ +=
            "</cwd>\\n  <approval_policy>on-request</approval_policy>\\n  <sandbox_mode>"
            "workspace-write</sandbox_mode>\\n  <network_access>restricted</network_access>\\n"
            "  <shell>bash</shell>\\n</environment_context>\"}]}";
        endLine();
    }
    scratch_.clear();
    appendSlice(scratch_, rng_, prose_, rng_.logUniform(20, 3'000));
    beginLine(s, "response_item", rng_.between(1, 20));
    buf_ +=
        "{\"type\":\"message\",\"role\":\"user\",\"content\":[{\"type\":\"input_text\","
        "\"text\":\"";
    buf_ += scratch_;
    buf_ += "\"}]}";
    endLine();
    eventMessage(s, "user_message", static_cast<int64_t>(scratch_.size()));
}

void Generator::reasoning(Session& s) {
    scratch_.clear();
    appendSlice(scratch_, rng_, prose_, rng_.logUniform(60, 1'500));
    beginLine(s, "response_item", rng_.between(1'000, 40'000));  // the model thinks
    buf_ += "{\"type\":\"reasoning\",\"summary\":[{\"type\":\"summary_text\",\"text\":\"";
    buf_ += scratch_;
    buf_ += "\"}],\"content\":null,\"encrypted_content\":\"gAAAAAB";
    appendChars(buf_, rng_, kBase64, rng_.logUniform(1'500, 24'000));
    buf_ += "\"}";
    endLine();
    if (rng_.chance(0.6))
        eventMessage(s, "agent_reasoning", static_cast<int64_t>(scratch_.size()));
}

void Generator::toolCall(Session& s, const Call& call) {
    beginLine(s, "response_item", rng_.between(5, 400));
    if (call.patch) {
        buf_ += "{\"type\":\"custom_tool_call\",\"status\":\"completed\",\"call_id\":\"";
        buf_ += call.id;
        buf_ += "\",\"name\":\"apply_patch\",\"input\":\"*** Begin Patch\\n*** Update File: src/";
        expand(buf_, rng_, "$w/$w.rs\\n@@\\n");
        appendSlice(buf_, rng_, code_, rng_.logUniform(200, 8'000));
        buf_ += "\\n*** End Patch\\n\"}";
    } else {
        buf_ +=
            "{\"type\":\"function_call\",\"name\":\"shell\",\"arguments\":\"{\\\"command\\\":"
            "[\\\"bash\\\",\\\"-lc\\\",\\\"";
        buf_ += rng_.pick(kCommands);
        buf_ += "\\\"],\\\"workdir\\\":\\\"";
        buf_ += s.cwd;
        buf_ += "\\\",\\\"timeout_ms\\\":120000}\",\"call_id\":\"";
        buf_ += call.id;
        buf_ += "\"}";
    }
    endLine();
}

// The bulk of the bytes: mostly a few kilobytes, now and then a huge file or build log, never
// much more than half of what the rollout may still hold. Returns the tokens it adds to the
// next prompt.
int64_t Generator::toolOutput(Session& s, const Call& call, int64_t budget) {
    int64_t size = call.patch ? rng_.logUniform(60, 400) : rng_.logUniform(200, 30'000);
    if (!call.patch && rng_.chance(0.015))
        size = rng_.logUniform(kLargeOutput, 1'500'000);
    size = std::min(size, std::max<int64_t>(20'000, budget / 2));
    if (size >= kLargeOutput)
        ++summary_.largeOutputs;

    scratch_.clear();
    if (call.patch) {
        expand(scratch_, rng_, "Success. Updated the following files:\\nM src/$w/$w.rs\\n");
    } else {
        appendSlice(scratch_, rng_, code_, size);
    }
    const int64_t exitCode = rng_.chance(0.08) ? 1 : 0;
    const int64_t tenths = rng_.logUniform(1, 900);
    beginLine(s, "response_item", call.patch ? rng_.between(5, 200) : tenths * 100);
    buf_ += call.patch ? "{\"type\":\"custom_tool_call_output\",\"call_id\":\""
                       : "{\"type\":\"function_call_output\",\"call_id\":\"";
    buf_ += call.id;
    buf_ += "\",\"output\":\"";
    if (s.flavour.jsonOutputs || call.patch) {
        buf_ += "{\\\"output\\\":\\\"";
        appendEscaped(buf_, scratch_);
        buf_ += "\\\",\\\"metadata\\\":{\\\"exit_code\\\":";
        appendInt(buf_, exitCode);
        buf_ += ",\\\"duration_seconds\\\":";
        appendTenths(buf_, tenths);
        buf_ += "}}\"}";
    } else {
        buf_ += "Exit code: ";
        appendInt(buf_, exitCode);
        buf_ += "\\nWall time: ";
        appendTenths(buf_, tenths);
        buf_ += " seconds\\nOutput:\\n";
        buf_ += scratch_;
        buf_ += "\"}";
    }
    endLine();
    return static_cast<int64_t>(scratch_.size()) / 4 + 20;
}

void Generator::assistantAnswer(Session& s) {
    scratch_.clear();
    appendSlice(scratch_, rng_, prose_, rng_.logUniform(40, 5'000));
    beginLine(s, "response_item", rng_.between(500, 20'000));
    buf_ +=
        "{\"type\":\"message\",\"role\":\"assistant\",\"content\":[{\"type\":\"output_text\","
        "\"text\":\"";
    buf_ += scratch_;
    buf_ += "\"}]}";
    endLine();
    eventMessage(s, "agent_message", static_cast<int64_t>(scratch_.size()));
}

void Generator::counts(const Totals& t) {
    buf_ += "{\"input_tokens\":";
    appendInt(buf_, t.input);
    buf_ += ",\"cached_input_tokens\":";
    appendInt(buf_, t.cached);
    buf_ += ",\"output_tokens\":";
    appendInt(buf_, t.output);
    buf_ += ",\"reasoning_output_tokens\":";
    appendInt(buf_, t.reasoning);
    buf_ += ",\"total_tokens\":";
    appendInt(buf_, t.input + t.output);
    buf_ += '}';
}

// The account's windows as the last response reported them; they fill up with use and start
// again when their time is over.
void Generator::rateLimits(Session& s) {
    if (rng_.chance(0.04)) {
        buf_ += "null";
        return;
    }
    const int64_t now = s.clock / 1000;
    Account& a = account_;
    if (now >= a.primaryReset) {
        a.primaryTenths = rng_.between(0, 30);
        a.primaryReset = now + kPrimaryWindowMinutes * 60 - rng_.between(0, 600);
    }
    if (now >= a.secondaryReset) {
        a.secondaryTenths = rng_.between(0, 50);
        a.secondaryReset = now + kSecondaryWindowMinutes * 60 - rng_.between(0, 86'400);
    }
    a.primaryTenths = std::min<int64_t>(1000, a.primaryTenths + rng_.between(0, 12));
    a.secondaryTenths = std::min<int64_t>(1000, a.secondaryTenths + rng_.between(0, 3));
    auto window = [&](int64_t tenths, int64_t minutes, int64_t reset) {
        buf_ += "{\"used_percent\":";
        appendTenths(buf_, tenths);
        buf_ += ",\"window_minutes\":";
        appendInt(buf_, minutes);
        if (s.flavour.relativeResets) {
            buf_ += ",\"resets_in_seconds\":";
            appendInt(buf_, reset - now);
        } else {
            buf_ += ",\"resets_at\":";
            appendInt(buf_, reset);
        }
        buf_ += '}';
    };
    buf_ += "{\"primary\":";
    window(a.primaryTenths, kPrimaryWindowMinutes, a.primaryReset);
    buf_ += ",\"secondary\":";
    window(a.secondaryTenths, kSecondaryWindowMinutes, a.secondaryReset);
    if (!s.flavour.relativeResets) {
        buf_ += ",\"credits\":null,\"plan_type\":\"";
        buf_ += a.plan;
        buf_ += '"';
    }
    buf_ += '}';
}

// A token report: the running totals and the last request, or (without `last`) only the rate
// limits.
void Generator::tokenCount(Session& s, const Totals* last) {
    beginLine(s, "event_msg", rng_.between(1, 60));
    buf_ += "{\"type\":\"token_count\",\"info\":";
    if (last == nullptr) {
        buf_ += "null";
        ++summary_.nullInfoReports;
    } else {
        buf_ += "{\"total_token_usage\":";
        counts(s.totals);
        buf_ += ",\"last_token_usage\":";
        counts(*last);
        buf_ += ",\"model_context_window\":";
        appendInt(buf_, kContextWindow);
        buf_ += '}';
    }
    buf_ += ",\"rate_limits\":";
    rateLimits(s);
    buf_ += '}';
    endLine();
    ++current_.tokenCountLines;
}

// One model request: its prompt is the context so far plus what was added since (the prompt,
// tool output); most of it comes from the prompt cache.
void Generator::request(Session& s, int64_t freshTokens, int64_t outputHint) {
    Totals last;
    last.input = s.context + freshTokens;
    last.cached = rng_.chance(0.08) ? 0 : (s.context / 128) * 128;
    last.output = std::max<int64_t>(outputHint, 1);
    last.reasoning = s.effort == "low" ? 0 : last.output * rng_.between(0, 85) / 100;
    s.totals.input += last.input;
    s.totals.cached += last.cached;
    s.totals.output += last.output;
    s.totals.reasoning += last.reasoning;
    s.context = last.input + last.output;

    tokenCount(s, &last);
    ++current_.expectedEvents;
    current_.expectedInput += last.input;
    current_.expectedCached += last.cached;
    current_.expectedOutput += last.output;

    if (rng_.chance(0.08)) {  // reported again with nothing new
        tokenCount(s, &last);
        ++summary_.repeatedReports;
    }
}

void Generator::compacted(Session& s) {
    beginLine(s, "compacted", rng_.between(2'000, 30'000));
    buf_ += "{\"message\":\"";
    appendSlice(buf_, rng_, prose_, rng_.between(2'000, 8'000));
    buf_ += "\"}";
    endLine();
    s.context = rng_.between(15'000, 40'000);
}

void Generator::writeTurns(Session& s, int64_t budget, bool fresh) {
    if (fresh && rng_.chance(0.6))
        tokenCount(s, nullptr);  // the limits arrive before any usage
    bool first = true;
    while (first || fileBytes() < budget) {
        if (!first) {
            // The user reads and types; now and then the session is resumed much later.
            s.clock += rng_.chance(0.05) ? rng_.between(2 * 3'600'000, 3 * 86'400'000)
                                         : rng_.between(10'000, 900'000);
        }
        if (rng_.chance(0.04))
            s.model = pickModel(rng_);
        turnContext(s);
        userTurn(s, first && fresh);
        first = false;
        if (rng_.chance(0.02))
            tokenCount(s, nullptr);

        int64_t freshTokens = rng_.between(200, 2'000);
        const int64_t rounds = rng_.between(1, 16);
        for (int64_t round = 0; round < rounds; ++round) {
            if (rng_.chance(0.85))
                reasoning(s);
            const bool answer = round + 1 == rounds || fileBytes() >= budget;
            if (answer) {
                assistantAnswer(s);
                request(s, freshTokens, rng_.logUniform(40, 6'000));
                break;
            }
            std::vector<Call> calls(
                rng_.chance(0.85) ? 1 : static_cast<std::size_t>(rng_.between(2, 3)));
            for (auto& c : calls) {
                c.id = "call_";
                appendChars(c.id, rng_, kBase62, 24);
                c.patch = rng_.chance(0.25);
                toolCall(s, c);
            }
            request(s, freshTokens, rng_.logUniform(30, 2'500));
            freshTokens = 0;
            for (const auto& c : calls)
                freshTokens += toolOutput(s, c, budget - fileBytes());
            if (rng_.chance(0.02)) {  // the user interrupted the turn
                beginLine(s, "event_msg", rng_.between(100, 5'000));
                buf_ += "{\"type\":\"turn_aborted\",\"reason\":\"interrupted\"}";
                endLine();
                break;
            }
        }
        if (s.context > 200'000)
            compacted(s);
        mark(s);
    }
}

// The fork's copy of its parent's history up to `m`, every line under a fresh time: the burst
// in which the agent wrote the copy.
bool Generator::replay(const Written& parent, const Mark& m, Session& fork) {
    const std::size_t at = buf_.size();
    if (!appendHead(buf_, parent.rollout.path, m.bytes, error_))
        return false;
    constexpr std::string_view head = "{\"timestamp\":\"";
    constexpr std::size_t stampLength = 24;
    std::size_t line = at;
    while (line < buf_.size()) {
        const std::size_t end = buf_.find('\n', line);
        if (buf_.compare(line, head.size(), head) == 0 && end - line > head.size() + stampLength) {
            if (rng_.chance(0.3))
                ++fork.clock;
            std::string stamp;
            appendTimestamp(stamp, fork.clock);
            buf_.replace(line + head.size(), stampLength, stamp);
        }
        line = end + 1;
    }
    current_.lines += m.lines;
    current_.tokenCountLines += m.tokenCounts;
    current_.replayedLines += m.lines;
    current_.replayedReports += m.tokenCounts;
    if (buf_.size() >= kFlushAt)
        file_.flush();
    return true;
}

// Moves some rollouts to archived_sessions (flat) and compresses a few of those, as the agent
// does with finished sessions.
std::expected<void, std::string> Generator::archive(std::vector<Written>& written) {
    const std::size_t n = written.size();
    const std::size_t archived = n >= 3 ? std::max<std::size_t>(1, n * 15 / 100) : 0;
    const std::size_t compressed = archived > 0 ? std::max<std::size_t>(1, archived / 3) : 0;
    std::vector<std::size_t> order(n);
    for (std::size_t i = 0; i < n; ++i)
        order[i] = i;
    for (std::size_t i = n; i > 1; --i)
        std::swap(order[i - 1], order[rng_.below(i)]);

    const fs::path dir = options_.home / ".codex" / "archived_sessions";
    std::error_code ec;
    if (archived > 0)
        fs::create_directories(dir, ec);
    if (ec)
        return std::unexpected("cannot create " + dir.string() + ": " + ec.message());
    for (std::size_t k = 0; k < archived; ++k) {
        CodexRollout& r = written[order[k]].rollout;
        const fs::path target = dir / r.path.filename();
        fs::rename(r.path, target, ec);
        if (ec)
            return std::unexpected("cannot move " + r.path.string() + ": " + ec.message());
        r.path = target;
        r.archived = true;
        if (k >= compressed)
            continue;

        fs::path packed = target;
        packed += ".zst";
        std::unique_ptr<std::FILE, int (*)(std::FILE*)> in(std::fopen(target.c_str(), "rb"),
                                                           &std::fclose);
        std::unique_ptr<std::FILE, int (*)(std::FILE*)> out(std::fopen(packed.c_str(), "wb"),
                                                            &std::fclose);
        std::unique_ptr<ZSTD_CCtx, std::size_t (*)(ZSTD_CCtx*)> cctx(ZSTD_createCCtx(),
                                                                     &ZSTD_freeCCtx);
        if (!in || !out || !cctx)
            return std::unexpected("cannot compress " + target.string());
        ZSTD_CCtx_setParameter(cctx.get(), ZSTD_c_compressionLevel, 3);
        std::vector<char> inBuf(ZSTD_CStreamInSize());
        std::vector<char> outBuf(ZSTD_CStreamOutSize());
        bool done = false;
        while (!done) {
            const std::size_t read = std::fread(inBuf.data(), 1, inBuf.size(), in.get());
            const bool last = read < inBuf.size();
            ZSTD_inBuffer input{inBuf.data(), read, 0};
            const ZSTD_EndDirective mode = last ? ZSTD_e_end : ZSTD_e_continue;
            bool finished = false;
            while (!finished) {
                ZSTD_outBuffer output{outBuf.data(), outBuf.size(), 0};
                const std::size_t left = ZSTD_compressStream2(cctx.get(), &output, &input, mode);
                if (ZSTD_isError(left))
                    return std::unexpected("cannot compress " + target.string() + ": " +
                                           ZSTD_getErrorName(left));
                if (std::fwrite(outBuf.data(), 1, output.pos, out.get()) != output.pos)
                    return std::unexpected("cannot write " + packed.string());
                finished = last ? left == 0 : input.pos == input.size;
            }
            done = last;
        }
        if (std::ferror(in.get()) || std::fclose(out.release()) != 0)
            return std::unexpected("cannot compress " + target.string());
        in.reset();
        fs::remove(target, ec);
        r.path = packed;
        r.compressed = true;
    }
    for (auto& w : written) {
        w.rollout.bytes = static_cast<int64_t>(fs::file_size(w.rollout.path, ec));
        if (ec)
            return std::unexpected("cannot stat " + w.rollout.path.string());
    }
    return {};
}

std::expected<CodexCorpusSummary, std::string> Generator::run() {
    const fs::path root = options_.home / ".codex";
    std::error_code ec;
    for (const char* folder : {"sessions", "archived_sessions"}) {
        const fs::path dir = root / folder;
        if (!fs::exists(dir, ec) || fs::is_empty(dir, ec))
            continue;
        if (!options_.overwrite)
            return std::unexpected(dir.string() + " already holds rollouts");
        fs::remove_all(dir, ec);
        if (ec)
            return std::unexpected("cannot clear " + dir.string() + ": " + ec.message());
    }

    zoneOffsetMs_ = rng_.pick(kZoneOffsetsHours) * 3'600'000;
    account_.plan = rng_.chance(0.7) ? "plus" : "pro";
    const int64_t target = std::max<int64_t>(options_.targetBytes, 4096);
    const int64_t total =
        options_.files > 0 ? options_.files : std::max<int64_t>(6, target / 4'000'000);
    const int64_t forks = total >= 4 ? std::max<int64_t>(1, total / 8) : 0;

    // Which slots are forks: never the first, which has nothing to fork from.
    std::vector<bool> isFork(static_cast<std::size_t>(total), false);
    for (int64_t placed = 0; placed < forks;) {
        const auto i = static_cast<std::size_t>(rng_.between(1, total - 1));
        if (!isFork[i]) {
            isFork[i] = true;
            ++placed;
        }
    }
    std::vector<double> weights(static_cast<std::size_t>(total));
    for (auto& w : weights)
        w = 0.3 + 1.4 * rng_.unit();
    Shares shares(std::move(weights));
    auto budgetFor = [&](std::size_t file) {
        return shares.take(file, target - summary_.textBytes);
    };

    std::vector<Written> written;
    written.reserve(static_cast<std::size_t>(total));
    int64_t clock = 1'759'305'600'000LL + static_cast<int64_t>(rng_.below(30 * 86'400)) * 1000;
    for (int64_t i = 0; i < total; ++i) {
        const int64_t budget = budgetFor(static_cast<std::size_t>(i));
        clock += rng_.between(60'000, 3 * 3'600'000);
        Session s;
        s.id = uuid(rng_);
        s.clock = clock;
        s.effort = rng_.pick(kEfforts);

        // A fork copies a prefix of an earlier rollout that fits its share of the bytes.
        const Written* parent = nullptr;
        const Mark* upTo = nullptr;
        if (isFork[static_cast<std::size_t>(i)]) {
            const auto& p = written[rng_.below(written.size())];
            std::size_t fitting = 0;
            while (fitting < p.marks.size() && p.marks[fitting].bytes * 10 <= budget * 7)
                ++fitting;
            if (!p.marks.empty()) {
                parent = &p;
                upTo = &p.marks[fitting == 0 ? 0 : rng_.below(fitting)];
            }
        }
        if (parent != nullptr) {
            s.cwd = parent->cwd;
            s.forkedFrom = parent->rollout.sessionID;
            s.totals = upTo->totals;
            s.context = upTo->context;
            s.model = upTo->model;
        } else {
            const auto project = static_cast<std::size_t>(rng_.below(kProjectNames.size()));
            s.cwd = rng_.chance(0.4) ? "/Users/ann/src/" : "/home/dev/work/";
            s.cwd += kProjectNames[project];
            s.model = pickModel(rng_);
            s.context = rng_.between(6'000, 14'000);  // instructions and tool definitions
        }
        s.originator = static_cast<std::size_t>(rng_.below(kOriginators.size()));
        s.flavour = rng_.pick(kFlavours);

        if (!openFile(rolloutPath(s)))
            return std::unexpected(error_);
        current_.sessionID = s.id;
        current_.forkedFromID = s.forkedFrom;
        sessionMeta(s);
        if (parent != nullptr) {
            if (!replay(*parent, *upTo, s))
                return std::unexpected(error_);
            s.clock += rng_.between(3'000, 120'000);  // the user types the fork's first prompt
        }
        writeTurns(s, budget, parent == nullptr);
        if (!closeFile())
            return std::unexpected(error_);
        clock = std::max(clock, s.clock);
        written.push_back({current_, s.cwd, marks_});
    }

    if (auto archived = archive(written); !archived)
        return std::unexpected(archived.error());
    for (auto& w : written) {
        CodexRollout& r = w.rollout;
        ++summary_.files;
        summary_.forkedFiles += r.forkedFromID.empty() ? 0 : 1;
        summary_.archivedFiles += r.archived ? 1 : 0;
        summary_.compressedFiles += r.compressed ? 1 : 0;
        summary_.bytes += r.bytes;
        summary_.lines += r.lines;
        summary_.tokenCountLines += r.tokenCountLines;
        summary_.replayedLines += r.replayedLines;
        summary_.expectedEvents += r.expectedEvents;
        summary_.rollouts.push_back(std::move(r));
    }
    std::sort(summary_.rollouts.begin(), summary_.rollouts.end(),
              [](const CodexRollout& a, const CodexRollout& b) { return a.path < b.path; });
    return summary_;
}

}  // namespace

std::expected<CodexCorpusSummary, std::string> writeCodexCorpus(const CodexCorpusOptions& options) {
    auto generator = std::make_unique<Generator>(options);
    return generator->run();
}

}  // namespace kestrel::corpus
