#include "core/sources/claude_parser.hpp"

#include <sys/stat.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "core/model/event_id.hpp"
#include "core/model/privacy.hpp"
#include "core/model/timestamp.hpp"
#include "core/model/token_semantics.hpp"
#include "core/sources/claude_line_reader.hpp"
#include "core/sources/file_discovery.hpp"
#include "core/sources/jsonl.hpp"

namespace kestrel::ClaudeParser {

static_assert(JSONL::kLinePadding >= 64, "the line reader parses in place with 64 bytes of room");

std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors) {
    return discoverFilesWithSuffix(root / "projects", ".jsonl", errors);
}

std::string projectKey(const std::filesystem::path& transcript) {
    bool afterProjects = false;
    for (const auto& component : transcript) {
        if (afterProjects) {
            std::string key = component.string();
            for (auto pos = key.find("-Users-"); pos != std::string::npos;
                 pos = key.find("-Users-", pos)) {
                key.erase(pos, 7);
            }
            return key;
        }
        afterProjects = component == "projects";
    }
    return transcript.parent_path().filename().string();
}

namespace {

// Extras kept for audit and for pricing to come: the vendor's own cost, the cache-write split by
// lifetime (the two are priced differently), and where the line came from.
std::optional<std::string> extrasOf(const ClaudeRecord& r) {
    nlohmann::ordered_json extras = nlohmann::ordered_json::object();
    if (r.costUSD) {
        extras["costUSD"] = *r.costUSD;
    }
    if (r.cacheWrite5m) {
        extras["cacheWrite5m"] = *r.cacheWrite5m;
    }
    if (r.cacheWrite1h) {
        extras["cacheWrite1h"] = *r.cacheWrite1h;
    }
    if (!r.serviceTier.empty()) {
        extras["serviceTier"] = r.serviceTier;
    }
    if (r.isSidechain) {
        extras["sidechain"] = true;
    }
    if (!r.agentID.empty()) {
        extras["agentId"] = r.agentID;
    }
    if (extras.empty()) {
        return std::nullopt;
    }
    return extras.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

// Project label for display: the last component of the working directory, or the project key
// without the leading separator when the line names no directory.
std::string displayLabel(const ClaudeRecord& r, const std::string& key) {
    if (!r.cwd.empty()) {
        return Privacy::displayName(r.cwd);
    }
    return key.starts_with('-') ? key.substr(1) : key;
}

struct FileFacts {
    double mtime = 0;
    std::string sessionFromName;
    std::string projectKey;
    std::optional<std::string> lastIdentity;  // the last directory hashed, and its hash
    std::string lastHash;
};

UsageEvent makeEvent(const ClaudeRecord& r, FileFacts& file) {
    UsageEvent e;
    e.id = EventID::claude(r.messageID);
    if (auto t = parseISO8601(r.timestamp)) {
        e.occurredAt = *t;
        e.timeQuality = ObservationTimeQuality::trusted;
    } else {
        // Keep the usage; its time is only as good as the file's.
        e.occurredAt = file.mtime;
        e.timeQuality = ObservationTimeQuality::inferred;
    }
    e.usagePrecision = UsagePrecision::nativeExact;
    e.granularity = UsageGranularity::request;
    e.source = AgentSource::claude;
    e.provider = "anthropic";
    e.model = r.model;
    // The real working directory joins this project with other agents' records of it; the
    // folder-derived key is the fallback.
    const std::string& identity = r.cwd.empty() ? file.projectKey : r.cwd;
    if (file.lastIdentity != identity) {
        // Lines of one file nearly always share a directory: hash it once.
        file.lastIdentity = identity;
        file.lastHash = Privacy::cwdHash(identity);
    }
    e.cwdHash = file.lastHash;
    e.projectDisplayName = displayLabel(r, file.projectKey);
    e.sessionID = r.sessionID.empty() ? file.sessionFromName : r.sessionID;
    e.raw = TokenSnapshot{
        r.inputTokens, r.cacheReadInputTokens, r.cacheCreationInputTokens, r.outputTokens, 0, 0};
    const auto mapped =
        TokenSemantics::map(AgentSource::claude, r.inputTokens, r.cacheReadInputTokens,
                            r.cacheCreationInputTokens, r.outputTokens, 0, std::nullopt);
    e.exclusive = mapped.exclusive;
    e.breakdownTrusted = mapped.trusted;
    e.providerInputTotal = mapped.providerIn;
    e.providerOutputTotal = mapped.providerOut;
    e.providerTotal = mapped.providerTotal;
    e.usageSemanticsVersion = usageSemanticsVersion(AgentSource::claude);
    // Carries the agent's own cost figure, which pricing prefers over the table.
    e.rawExtras = extrasOf(r);
    e.promptTokens = TokenSemantics::promptTokens(e.exclusive);
    return e;
}

bool isEmptyErrorRecord(const ClaudeRecord& r) {
    return (r.isApiErrorMessage || r.model == "<synthetic>") && r.inputTokens == 0 &&
           r.outputTokens == 0 && r.cacheReadInputTokens == 0 && r.cacheCreationInputTokens == 0;
}

}  // namespace

std::expected<IngestResult, FileError> ingest(const SourceReadContext& context) {
    const auto& transcript = context.file;
    const auto& checkpoint = context.checkpoint;
    const int64_t start = checkpoint && checkpoint->byteOffset ? *checkpoint->byteOffset : 0;

    FileFacts facts;
    struct stat st {};
    if (::stat(transcript.c_str(), &st) == 0) {
        facts.mtime = static_cast<double>(st.st_mtim.tv_sec) + st.st_mtim.tv_nsec / 1e9;
    }
    facts.sessionFromName = transcript.stem().string();
    facts.projectKey = projectKey(transcript);

    // The checkpoint of the lines before `next`; no state is kept between lines, so it is the
    // whole of what a later read needs.
    const auto checkpointAt = [&](int64_t next, std::optional<int64_t> partialStart) {
        SourceCheckpoint cp;
        cp.source = AgentSource::claude;
        cp.stableID = SourceCheckpoint::stableIDFor(transcript);
        cp.pathHint = transcript.string();
        cp.inode = JSONL::inode(transcript);
        cp.byteOffset = next;
        cp.partialLineStart = partialStart;
        cp.contentFingerprint = JSONL::boundaryFingerprint(transcript, next);
        cp.parserVersion = parserVersion;
        cp.schemaVersion = checkpointSchemaVersion;
        return cp;
    };

    IngestResult result;
    ClaudeLineReader reader;
    ClaudeRecord record;
    int64_t usable = 0, unreadable = 0;
    const auto onLine = [&](std::string_view line, int64_t offset) {
        ++result.stats.lines;
        switch (reader.read(line, JSONL::kLinePadding, record)) {
            case ClaudeLineKind::usage:
                ++usable;
                if (isEmptyErrorRecord(record)) {
                    ++result.stats.withoutUsage;
                } else {
                    context.sink(makeEvent(record, facts));
                }
                break;
            case ClaudeLineKind::noUsage:
                ++result.stats.withoutUsage;
                break;
            case ClaudeLineKind::malformed:
                ++result.stats.malformed;
                break;
            case ClaudeLineKind::unreadableUsage:
                ++result.stats.malformed;
                ++unreadable;
                break;
            case ClaudeLineKind::blank:
                break;
        }
        if (context.wantsHandOver && context.wantsHandOver()) {
            context.handOver(checkpointAt(JSONL::offsetAfter(line, offset), std::nullopt));
        }
    };
    auto end = JSONL::forEachCompleteLine(transcript, start, onLine);
    if (!end) {
        return std::unexpected(end.error());
    }
    result.stats.malformed += end->oversizedLines;
    result.stats.lines += end->oversizedLines;
    result.stats.bytes = end->nextOffset - start;
    // A whole file whose usage records are there but none of which can be read: the agent
    // changed how it writes them, which a person should hear about rather than see zero. (One
    // odd record appended to a file that read well is damage, not a new format.)
    result.formatChanged = start == 0 && unreadable > 0 && usable == 0;

    result.checkpoint = checkpointAt(end->nextOffset, end->partialStart);
    return result;
}

SourceReader reader() {
    return {SourceReaderKind::jsonLines, parserVersion, discover, ingest};
}

namespace {

std::optional<std::string> stringField(const nlohmann::json& object, const char* key) {
    auto it = object.find(key);
    if (it == object.end() || !it->is_string() || it->get_ref<const std::string&>().empty()) {
        return std::nullopt;
    }
    return it->get<std::string>();
}

// "stripe_subscription" and friends become a readable label; unknown kinds are shown as written.
std::string planLabelFor(const nlohmann::json& root, const nlohmann::json& account) {
    for (const auto* object : {&account, &root}) {
        if (auto tier = stringField(*object, "subscriptionType")) {
            return *tier;
        }
    }
    if (auto billing = stringField(account, "billingType")) {
        if (billing->find("subscription") != std::string::npos) {
            return "subscription";
        }
        return *billing;
    }
    return "unknown";
}

}  // namespace

std::optional<AccountSnapshot> account(const nlohmann::json& json, double now) {
    if (!json.is_object()) {
        return std::nullopt;
    }
    auto it = json.find("oauthAccount");
    if (it == json.end() || !it->is_object()) {
        return std::nullopt;
    }
    const auto& oauth = *it;
    AccountSnapshot snapshot;
    snapshot.identity.source = AgentSource::claude;
    snapshot.identity.planLabel = planLabelFor(json, oauth);
    snapshot.identity.displayName = stringField(oauth, "displayName");
    if (auto email = stringField(oauth, "emailAddress")) {
        snapshot.identity.emailMasked = Privacy::maskEmail(*email);
    }
    snapshot.identity.organizationName = stringField(oauth, "organizationName");
    snapshot.fetchedAt = now;
    snapshot.provenance = QuotaProvenance::localCache;
    snapshot.completeness = CostCompleteness::none;
    return snapshot;
}

std::optional<AccountSnapshot> accountFromDotJSON(const std::filesystem::path& dotJSON,
                                                  double now) {
    // The account file is small; anything huge is not it.
    std::error_code ec;
    const auto size = std::filesystem::file_size(dotJSON, ec);
    if (ec || size > (64u << 20)) {
        return std::nullopt;
    }
    std::ifstream in(dotJSON, std::ios::binary);
    if (!in) {
        return std::nullopt;
    }
    auto json = nlohmann::json::parse(in, nullptr, /*allow_exceptions=*/false);
    if (json.is_discarded()) {
        return std::nullopt;
    }
    return account(json, now);
}

}  // namespace kestrel::ClaudeParser
