#include "tools/corpus_text.hpp"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <system_error>
#include <utility>

namespace kestrel::corpus::detail {

namespace {

uint64_t rotl(uint64_t x, int k) {
    return (x << k) | (x >> (64 - k));
}

void appendDigits(char* at, int64_t v, int width) {
    for (int i = width - 1; i >= 0; --i) {
        at[i] = static_cast<char>('0' + v % 10);
        v /= 10;
    }
}

struct Civil {
    int64_t year, month, day, hour, minute, second, millis;
};

// Civil-from-days conversion, proleptic Gregorian, UTC.
Civil civil(int64_t ms) {
    int64_t days = ms / 86'400'000;
    int64_t rest = ms % 86'400'000;
    if (rest < 0) {
        rest += 86'400'000;
        --days;
    }
    const int64_t z = days + 719468;
    const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const int64_t doe = z - era * 146097;
    const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const int64_t mp = (5 * doy + 2) / 153;
    const int64_t d = doy - (153 * mp + 2) / 5 + 1;
    const int64_t m = mp < 10 ? mp + 3 : mp - 9;
    const int64_t y = yoe + era * 400 + (m <= 2 ? 1 : 0);
    return {y, m, d, rest / 3'600'000, rest / 60'000 % 60, rest / 1000 % 60, rest % 1000};
}

// The date and the time of day in the places they have in "2025-10-03T10:15:30", whatever the
// separators.
void putDate(char* b, const Civil& c) {
    appendDigits(b, c.year, 4);
    appendDigits(b + 5, c.month, 2);
    appendDigits(b + 8, c.day, 2);
}
void putTime(char* b, const Civil& c) {
    appendDigits(b + 11, c.hour, 2);
    appendDigits(b + 14, c.minute, 2);
    appendDigits(b + 17, c.second, 2);
}

constexpr std::array<std::string_view, 24> kWords = {
    "value",  "index",   "config", "buffer", "session", "token", "parser", "result",
    "offset", "handler", "count",  "client", "request", "entry", "record", "stream",
    "state",  "cursor",  "event",  "path",   "window",  "limit", "cache",  "schema"};
constexpr std::array<std::string_view, 12> kTypes = {"Parser", "Config",  "Session", "Window",
                                                     "Record", "Store",   "Reader",  "Writer",
                                                     "Router", "Handler", "Budget",  "Report"};
constexpr std::array<std::string_view, 16> kVerbs = {
    "check", "update", "refactor", "read",  "rename", "move",  "test",  "fix",
    "split", "merge",  "trace",    "cache", "load",   "parse", "guard", "measure"};

bool isContinuation(char c) {
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

}  // namespace

const Vocabulary kCodeVocabulary = {kWords, kTypes, kVerbs};

Rng::Rng(uint64_t seed) {
    for (auto& s : state_) {
        seed += 0x9e3779b97f4a7c15ULL;
        uint64_t z = seed;
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
        s = z ^ (z >> 31);
    }
}

uint64_t Rng::next() {
    const uint64_t result = rotl(state_[1] * 5, 7) * 9;
    const uint64_t t = state_[1] << 17;
    state_[2] ^= state_[0];
    state_[3] ^= state_[1];
    state_[1] ^= state_[2];
    state_[0] ^= state_[3];
    state_[2] ^= t;
    state_[3] = rotl(state_[3], 45);
    return result;
}

void appendChars(std::string& out, Rng& rng, std::string_view alphabet, int64_t n) {
    uint64_t bits = 0;
    int left = 0;
    for (int64_t i = 0; i < n; ++i) {
        if (left == 0) {
            bits = rng.next();
            left = 10;
        }
        out.push_back(alphabet[(bits & 63) % alphabet.size()]);
        bits >>= 6;
        --left;
    }
}

void appendUuid(std::string& out, Rng& rng) {
    const uint64_t hi = rng.next();
    const uint64_t lo = rng.next();
    for (int i = 0; i < 32; ++i) {
        if (i == 8 || i == 12 || i == 16 || i == 20)
            out.push_back('-');
        const uint64_t word = i < 16 ? hi : lo;
        char c = kHex[(word >> ((i % 16) * 4)) & 15];
        if (i == 12)
            c = '4';  // version 4
        if (i == 16)
            c = kHex[8 + ((word >> 2) & 3)];  // RFC 4122 variant
        out.push_back(c);
    }
}

std::string uuid(Rng& rng) {
    std::string s;
    s.reserve(36);
    appendUuid(s, rng);
    return s;
}

void appendInt(std::string& out, int64_t v) {
    char tmp[24];
    const auto r = std::to_chars(tmp, tmp + sizeof tmp, v);
    out.append(tmp, r.ptr);
}

void appendTenths(std::string& out, int64_t tenths) {
    appendInt(out, tenths / 10);
    out.push_back('.');
    out.push_back(static_cast<char>('0' + tenths % 10));
}

void appendTimestamp(std::string& out, int64_t ms) {
    const Civil c = civil(ms);
    char b[] = "0000-00-00T00:00:00.000Z";
    putDate(b, c);
    putTime(b, c);
    appendDigits(b + 20, c.millis, 3);
    out.append(b, 24);
}

std::string fileTime(int64_t ms) {
    const Civil c = civil(ms);
    char b[] = "0000-00-00T00-00-00";
    putDate(b, c);
    putTime(b, c);
    return std::string(b, 19);
}

std::string datePath(int64_t ms) {
    const Civil c = civil(ms);
    char b[] = "0000/00/00";
    putDate(b, c);
    return std::string(b, 10);
}

void expand(std::string& out, Rng& rng, std::string_view tpl, const Vocabulary& vocabulary) {
    auto pick = [&](std::span<const std::string_view> items) {
        return items[rng.below(items.size())];
    };
    for (std::size_t i = 0; i < tpl.size(); ++i) {
        if (tpl[i] != '$' || i + 1 == tpl.size()) {
            out.push_back(tpl[i]);
            continue;
        }
        switch (tpl[++i]) {
            case 'w':
                out += pick(vocabulary.words);
                break;
            case 'T':
                out += pick(vocabulary.types);
                break;
            case 'v':
                out += pick(vocabulary.verbs);
                break;
            case 'n':
                appendInt(out, rng.logUniform(1, 100'000));
                break;
            case 'i':
                out.append(static_cast<std::size_t>(rng.between(0, 3)) * 4, ' ');
                break;
            default:
                out.push_back('$');
                out.push_back(tpl[i]);
                break;
        }
    }
}

void appendSlice(std::string& out, Rng& rng, const std::string& pool, int64_t len) {
    const std::size_t want = std::min<std::size_t>(
        static_cast<std::size_t>(std::max<int64_t>(len, 1)), pool.size() - 16);
    std::size_t start = rng.below(pool.size() - want);
    // Start on a word where one is near, for text that reads like text.
    for (std::size_t i = 0; i < 24 && start + i + 1 < pool.size(); ++i) {
        if (pool[start + i] == ' ') {
            start += i + 1;
            break;
        }
    }
    while (isContinuation(pool[start]) || (start > 0 && pool[start - 1] == '\\'))
        ++start;
    std::size_t end = std::min(start + want, pool.size());
    while (end > start && end < pool.size() && isContinuation(pool[end]))
        --end;
    if (end > start && pool[end - 1] == '\\')
        --end;
    out.append(pool, start, end - start);
}

void appendEscaped(std::string& out, std::string_view body) {
    std::size_t from = 0;
    for (std::size_t i = 0; i < body.size(); ++i) {
        if (body[i] == '\\' || body[i] == '"') {
            out.append(body, from, i - from);
            out.push_back('\\');
            from = i;
        }
    }
    out.append(body, from, body.size() - from);
}

bool appendHead(std::string& out, const std::filesystem::path& path, int64_t bytes,
                std::string& error) {
    std::FILE* in = std::fopen(path.c_str(), "rb");
    if (in == nullptr) {
        error = "cannot reread " + path.string();
        return false;
    }
    const std::size_t at = out.size();
    const auto want = static_cast<std::size_t>(bytes);
    out.resize(at + want);
    const std::size_t got = std::fread(out.data() + at, 1, want, in);
    std::fclose(in);
    if (got != want) {
        error = "short read of " + path.string();
        return false;
    }
    return true;
}

Shares::Shares(std::vector<double> weights) : weights_(std::move(weights)) {
    for (double w : weights_)
        weightLeft_ += w;
}

int64_t Shares::take(std::size_t file, int64_t left) {
    const double b = static_cast<double>(left) * weights_[file] / weightLeft_;
    weightLeft_ -= weights_[file];
    return std::max<int64_t>(static_cast<int64_t>(b), 2'000);
}

OutputFile::~OutputFile() {
    if (file_ != nullptr)
        std::fclose(file_);
}

bool OutputFile::open(const std::filesystem::path& path) {
    std::error_code ec;
    std::filesystem::create_directories(path.parent_path(), ec);
    if (ec) {
        error_ = "cannot create " + path.parent_path().string() + ": " + ec.message();
        return false;
    }
    file_ = std::fopen(path.c_str(), "wb");
    if (file_ == nullptr) {
        error_ = "cannot write " + path.string() + ": " + std::strerror(errno);
        return false;
    }
    std::setvbuf(file_, nullptr, _IONBF, 0);  // the writes are already large
    flushed_ = 0;
    failed_ = false;
    buf_.clear();
    return true;
}

bool OutputFile::flush() {
    if (buf_.empty())
        return !failed_;
    if (!failed_ && std::fwrite(buf_.data(), 1, buf_.size(), file_) != buf_.size()) {
        error_ = std::string("write failed: ") + std::strerror(errno);
        failed_ = true;
    }
    flushed_ += static_cast<int64_t>(buf_.size());
    buf_.clear();
    return !failed_;
}

bool OutputFile::close() {
    const bool ok = flush();
    const bool closed = std::fclose(file_) == 0;
    file_ = nullptr;
    if (!closed && ok) {
        error_ = std::string("close failed: ") + std::strerror(errno);
        return false;
    }
    return ok;
}

}  // namespace kestrel::corpus::detail
