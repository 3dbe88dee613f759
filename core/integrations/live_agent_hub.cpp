#include "core/integrations/live_agent_hub.hpp"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <fstream>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>

namespace kestrel {

namespace fs = std::filesystem;
using Json = nlohmann::json;

namespace {

// Dates before 2001 or after 2286 are not a clock reading but damage.
constexpr double kEarliest = 1e9;
constexpr double kLatest = 1e10;
// A temporary file this old belongs to a hook that died before its rename.
constexpr double kTempFileLifetime = 10 * 60;

bool plausibleTime(double t) {
    return std::isfinite(t) && t >= kEarliest && t <= kLatest;
}

// Control characters would let a pulse file rewrite the user's terminal; long texts are not ours.
std::string cleanText(std::string_view text, std::size_t maxBytes) {
    std::string out;
    for (char c : text.substr(0, maxBytes)) {
        const auto u = static_cast<unsigned char>(c);
        if (u >= 0x20 && u != 0x7f) {
            out += c;
        }
    }
    return out;
}

std::optional<std::string> optionalText(const Json& j, const char* key, std::size_t maxBytes) {
    const auto it = j.find(key);
    if (it == j.end() || !it->is_string()) {
        return std::nullopt;
    }
    auto text = cleanText(it->get_ref<const std::string&>(), maxBytes);
    if (text.empty()) {
        return std::nullopt;
    }
    return text;
}

std::optional<double> optionalTime(const Json& j, const char* key) {
    const auto it = j.find(key);
    if (it == j.end() || !it->is_number()) {
        return std::nullopt;
    }
    const double t = it->get<double>();
    return plausibleTime(t) ? std::optional(t) : std::nullopt;
}

bool isSessionKey(std::string_view key) {
    return !key.empty() && key.size() <= 128 && std::ranges::all_of(key, [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
               c == '-' || c == '_';
    });
}

double epochOf(fs::file_time_type t) {
    const auto sys = std::chrono::file_clock::to_sys(t);
    return std::chrono::duration<double>(sys.time_since_epoch()).count();
}

// At most `limit` + 1 bytes of a regular file, opened without following a symlink and without
// blocking on a FIFO that took a pulse's name; absent when it vanished or is something else.
std::optional<std::string> readBounded(const fs::path& path, std::uintmax_t limit) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return std::nullopt;
    }
    struct stat st {};
    std::optional<std::string> out;
    if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
        std::string bytes(static_cast<std::size_t>(limit) + 1, '\0');
        std::size_t have = 0;
        while (have < bytes.size()) {
            const auto n = ::read(fd, bytes.data() + have, bytes.size() - have);
            if (n <= 0) {
                break;
            }
            have += static_cast<std::size_t>(n);
        }
        bytes.resize(have);
        out = std::move(bytes);
    }
    ::close(fd);
    return out;
}

}  // namespace

std::string ActivitySessionKeyHasher::hash(std::string_view rawID, AgentSource source,
                                           std::string_view salt) {
    std::string input;
    input.reserve(salt.size() + rawID.size() + 16);
    input.append(salt).append("\n").append(rawValue(source)).append("\n").append(rawID);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(input.data(), input.size(), digest, &length, EVP_sha256(), nullptr) != 1) {
        return {};
    }
    static constexpr char hex[] = "0123456789abcdef";
    std::string out;
    for (unsigned int i = 0; i < length; ++i) {
        out += hex[digest[i] >> 4];
        out += hex[digest[i] & 0xf];
    }
    return out;
}

LiveAgentHub::LiveAgentHub(fs::path support, PulseReadLimits limits)
    : directory_(directory(support)), limits_(limits) {}

fs::path LiveAgentHub::directory(const fs::path& support) {
    return support / "live";
}

fs::path LiveAgentHub::sessionSaltURL(const fs::path& support) {
    return support / "hooks" / "session-salt";
}

std::optional<std::string> LiveAgentHub::loadSessionSalt(const fs::path& support) {
    const auto bytes = readBounded(sessionSaltURL(support), 4096);
    if (!bytes) {
        return std::nullopt;
    }
    auto line = bytes->substr(0, bytes->find('\n'));
    if (line.empty()) {
        return std::nullopt;
    }
    return line;
}

std::string LiveAgentHub::sessionKey(std::string_view rawSession, AgentSource source,
                                     std::string_view salt) {
    return ActivitySessionKeyHasher::hash(rawSession, source, salt);
}

std::optional<LiveAgentPulse> LiveAgentHub::parse(std::string_view bytes,
                                                  std::optional<AgentSource> defaultSource) {
    const Json j = Json::parse(bytes, nullptr, false);
    if (!j.is_object()) {
        return std::nullopt;  // half-written, empty or not ours
    }
    LiveAgentPulse p;
    if (const auto it = j.find("source"); it != j.end()) {
        if (!it->is_string()) {
            return std::nullopt;
        }
        const auto source = fromRawValue<AgentSource>(it->get_ref<const std::string&>());
        if (!source) {
            return std::nullopt;
        }
        p.source = *source;
    } else if (defaultSource) {
        p.source = *defaultSource;
    } else {
        return std::nullopt;
    }
    const auto state = j.find("state");
    if (state == j.end() || !state->is_string()) {
        return std::nullopt;
    }
    const auto stateWord = fromRawValue<LiveAgentState>(state->get_ref<const std::string&>());
    const auto key = j.find("session_key");
    if (!stateWord || key == j.end() || !key->is_string() ||
        !isSessionKey(key->get_ref<const std::string&>())) {
        return std::nullopt;
    }
    const auto at = optionalTime(j, "at");
    if (!at) {
        return std::nullopt;
    }
    p.state = *stateWord;
    p.sessionID = key->get<std::string>();
    p.at = *at;
    if (const auto it = j.find("format_version"); it != j.end() && it->is_number_integer()) {
        p.formatVersion = static_cast<int>(std::clamp<int64_t>(it->get<int64_t>(), 0, 1000));
    }
    if (const auto it = j.find("pid"); it != j.end() && it->is_number_integer()) {
        const auto pid = it->get<int64_t>();
        if (pid > 0 && pid <= std::numeric_limits<int32_t>::max()) {
            p.pid = static_cast<int32_t>(pid);
        }
    }
    p.cwd = optionalText(j, "cwd", 4096).value_or("");
    p.projectDisplayName = optionalText(j, "project", 256);
    p.startedAt = optionalTime(j, "started_at");
    if (p.startedAt && *p.startedAt > p.at) {
        p.startedAt = p.at;  // a start after the report is a clock jump; the report wins
    }
    if (auto word = optionalText(j, "evidence", 32)) {
        p.evidence = fromRawValue<ActivityEvidenceKind>(*word).value_or(ActivityEvidenceKind::hook);
    }
    if (auto word = optionalText(j, "precision", 32)) {
        p.precision = fromRawValue<ActivityPrecision>(*word).value_or(ActivityPrecision::exact);
    }
    if (const auto it = j.find("hook_version"); it != j.end() && it->is_number_integer()) {
        p.hookVersion = static_cast<int>(std::clamp<int64_t>(it->get<int64_t>(), 0, 1'000'000));
    }
    if (auto word = optionalText(j, "notice", 32)) {
        p.notice = fromRawValue<ActivityPulseNotice>(*word);
    }
    p.hint = optionalText(j, "hint", 64);
    p.task = optionalText(j, "task", 512);
    return p;
}

bool LiveAgentHub::isActive(const LiveAgentPulse& pulse, double now, double maxAge) {
    const double age = now - pulse.at;
    return age <= maxAge && age >= -kFutureTolerance;
}

PulseReading LiveAgentHub::readActive(const fs::path& dir, double now, double maxAge,
                                      const PulseReadLimits& limits) {
    PulseReading reading;
    struct Candidate {
        fs::path path;
        double modified;
    };
    std::vector<Candidate> candidates;
    std::error_code ec;
    std::size_t entries = 0;
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
        if (++entries > limits.maxEntries) {
            reading.truncated = true;
            break;
        }
        const auto& path = it->path();
        const auto name = path.filename().string();
        if (name.starts_with('.') || !name.ends_with(".json")) {
            continue;  // temporary files of a hook still writing, and strangers
        }
        std::error_code statError;
        const auto status = it->symlink_status(statError);
        const auto size = it->file_size(statError);
        const auto modified = it->last_write_time(statError);
        if (statError || status.type() != fs::file_type::regular || size > limits.maxFileBytes) {
            ++reading.skipped;
            continue;
        }
        // A pulse file is rewritten with every report, so one untouched for longer than the
        // window holds nothing recent; its date is not worth a read. The tolerance covers a
        // file system whose clock runs a little behind ours.
        const double mtime = epochOf(modified);
        if (mtime < now - maxAge - kFutureTolerance) {
            continue;
        }
        candidates.push_back({path, mtime});
    }
    std::ranges::sort(
        candidates, [](const Candidate& a, const Candidate& b) { return a.modified > b.modified; });
    if (candidates.size() > limits.maxParsed) {
        candidates.resize(limits.maxParsed);
        reading.truncated = true;
    }
    for (const auto& c : candidates) {
        const auto bytes = readBounded(c.path, limits.maxFileBytes);
        if (!bytes) {
            continue;  // vanished between the listing and the read
        }
        auto pulse = bytes->size() > limits.maxFileBytes ? std::nullopt : parse(*bytes);
        if (!pulse) {
            ++reading.skipped;
            continue;
        }
        if (!isActive(*pulse, now, maxAge)) {
            continue;
        }
        reading.pulses.push_back(std::move(*pulse));
    }
    std::ranges::stable_sort(reading.pulses, [](const LiveAgentPulse& a, const LiveAgentPulse& b) {
        return a.at > b.at;
    });
    return reading;
}

namespace {

// The newest pulse of each session.
std::map<std::pair<AgentSource, std::string>, const LiveAgentPulse*> newestBySession(
    std::span<const LiveAgentPulse> pulses) {
    std::map<std::pair<AgentSource, std::string>, const LiveAgentPulse*> out;
    for (const auto& p : pulses) {
        auto& slot = out[{p.source, p.sessionID}];
        if (!slot || p.at > slot->at) {
            slot = &p;
        }
    }
    return out;
}

}  // namespace

std::set<AgentSource> LiveAgentHub::processingSources(std::span<const LiveAgentPulse> pulses) {
    std::set<AgentSource> out;
    for (const auto& [key, p] : newestBySession(pulses)) {
        if (p->state == LiveAgentState::processing) {
            out.insert(key.first);
        }
    }
    return out;
}

std::set<AgentSource> LiveAgentHub::sourcesWithTerminatedSessions(
    std::span<const LiveAgentPulse> previous, std::span<const LiveAgentPulse> current) {
    const auto now = newestBySession(current);
    std::set<AgentSource> out;
    for (const auto& [key, p] : newestBySession(previous)) {
        if (p->state == LiveAgentState::idle) {
            continue;
        }
        const auto it = now.find(key);
        if (it == now.end() || it->second->state == LiveAgentState::idle) {
            out.insert(key.first);
        }
    }
    return out;
}

std::size_t LiveAgentHub::prune(const fs::path& dir, double now, double olderThan,
                                std::size_t maxRemovals) {
    std::size_t removed = 0;
    std::error_code ec;
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end && removed < maxRemovals;
         it.increment(ec)) {
        const auto name = it->path().filename().string();
        const bool temporary = name.starts_with('.') && name.ends_with(".tmp");
        if (!temporary && !name.ends_with(".json")) {
            continue;
        }
        std::error_code statError;
        const auto modified = it->last_write_time(statError);
        if (statError || it->symlink_status(statError).type() != fs::file_type::regular) {
            continue;
        }
        const double age = now - epochOf(modified);
        if (age > (temporary ? kTempFileLifetime : olderThan)) {
            std::error_code rm;
            if (fs::remove(it->path(), rm)) {
                ++removed;
            }
        }
    }
    return removed;
}

const PulseReading& LiveAgentHub::read(double now, double maxAge) {
    previous_ = std::move(current_);
    current_ = readActive(directory_, now, maxAge, limits_);
    return current_;
}

std::set<AgentSource> LiveAgentHub::terminatedSources() const {
    return sourcesWithTerminatedSessions(previous_.pulses, current_.pulses);
}

}  // namespace kestrel
