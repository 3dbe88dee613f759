#pragma once
// Building blocks of the synthetic agent homes: a seeded random stream that is the same on every
// platform, writers for identifiers, times and text that are already valid JSON string bodies,
// so that lines can be assembled by appending without an escaping pass, and the buffered file
// the lines go to.

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kestrel::corpus::detail {

// xoshiro256** seeded through splitmix64: the same stream everywhere, which the <random>
// distributions do not promise, so a seed names one corpus.
class Rng {
  public:
    explicit Rng(uint64_t seed);

    uint64_t next();

    // The modulo bias is far below anything a corpus could show.
    uint64_t below(uint64_t n) { return n == 0 ? 0 : next() % n; }
    int64_t between(int64_t lo, int64_t hi) {
        return lo + static_cast<int64_t>(below(static_cast<uint64_t>(hi - lo + 1)));
    }
    double unit() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }
    bool chance(double p) { return unit() < p; }
    // Log-uniform: as many values between 200 and 2,000 as between 2,000 and 20,000. A range
    // starting at zero is shifted by one, since the logarithm of zero is not a number.
    int64_t logUniform(int64_t lo, int64_t hi) {
        const int64_t shift = lo < 1 ? 1 - lo : 0;
        const double a = std::log(static_cast<double>(lo + shift));
        const double b = std::log(static_cast<double>(hi + shift));
        return std::clamp(static_cast<int64_t>(std::exp(a + unit() * (b - a))) - shift, lo, hi);
    }
    template <typename T, std::size_t N>
    const T& pick(const std::array<T, N>& items) {
        return items[below(N)];
    }

  private:
    std::array<uint64_t, 4> state_{};
};

inline constexpr std::string_view kBase62 =
    "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
inline constexpr std::string_view kBase64 =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
inline constexpr std::string_view kHex = "0123456789abcdef";

// `n` characters drawn from `alphabet` (at most 64 letters).
void appendChars(std::string& out, Rng& rng, std::string_view alphabet, int64_t n);
// A random version-4 UUID in its 36-character form.
void appendUuid(std::string& out, Rng& rng);
std::string uuid(Rng& rng);
void appendInt(std::string& out, int64_t v);
// `v` with exactly one decimal ("12.0"), as the agents write percentages.
void appendTenths(std::string& out, int64_t tenths);
// "2025-10-03T10:15:30.123Z" for milliseconds since the epoch.
void appendTimestamp(std::string& out, int64_t ms);
// "2025-10-03T10-15-30" and "2025/10/03" for milliseconds since the epoch (no zone applied).
std::string fileTime(int64_t ms);
std::string datePath(int64_t ms);

// The words a template's $w, $T and $v stand for.
struct Vocabulary {
    std::span<const std::string_view> words;
    std::span<const std::string_view> types;
    std::span<const std::string_view> verbs;
};
// Everyday names of code, for a corpus that brings no vocabulary of its own.
extern const Vocabulary kCodeVocabulary;

// A template is expanded by replacing $w with a word, $T with a type name, $v with a verb, $n
// with a number and $i with an indentation.
void expand(std::string& out, Rng& rng, std::string_view tpl,
            const Vocabulary& vocabulary = kCodeVocabulary);

// About `size` bytes of expanded templates, each picked at random.
template <std::size_t N>
std::string buildPool(Rng& rng, const std::array<std::string_view, N>& templates, std::size_t size,
                      const Vocabulary& vocabulary = kCodeVocabulary) {
    std::string p;
    p.reserve(size + 512);
    while (p.size() < size)
        expand(p, rng, rng.pick(templates), vocabulary);
    return p;
}

// Appends about `len` bytes of `pool` from a random place. The pool must hold only \n, \t and
// \" escapes (never "\\"); the slice never splits an escape or a UTF-8 sequence, so it is a
// valid JSON string body when the pool is.
void appendSlice(std::string& out, Rng& rng, const std::string& pool, int64_t len);

// Appends `body`, a valid JSON string body, escaped once more: the text of a JSON document that
// is itself carried in a string.
void appendEscaped(std::string& out, std::string_view body);

// Appends the first `bytes` bytes of the file at `path`, the head of an earlier transcript that a
// resumed or forked one repeats. On failure `error` says why.
bool appendHead(std::string& out, const std::filesystem::path& path, int64_t bytes,
                std::string& error);

// Splits the bytes still to be written between the files by their weights: each file in its turn
// takes its weight's part of what is left, so the total lands near the target.
class Shares {
  public:
    explicit Shares(std::vector<double> weights);
    // File `file`'s part of `left` bytes, 2,000 at the least. Each file asks once.
    int64_t take(std::size_t file, int64_t left);

  private:
    std::vector<double> weights_;
    double weightLeft_ = 0;  // the weights of the files yet to ask
};

// A file written through a large buffer in which the caller assembles whole lines. After a write
// fails the rest of the file is dropped, and flush and close return false.
class OutputFile {
  public:
    // `buffer` holds what is not written out yet; `error` receives the reason of a failure.
    OutputFile(std::string& buffer, std::string& error) : buf_(buffer), error_(error) {}
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    ~OutputFile();

    // Creates the file and its folders, and empties the buffer.
    bool open(const std::filesystem::path& path);
    // Writes the buffer out and empties it.
    bool flush();
    // Flushes and closes the file.
    bool close();
    // The file's size so far, the buffer included.
    int64_t bytes() const { return flushed_ + static_cast<int64_t>(buf_.size()); }
    // What has left the buffer, written or dropped.
    int64_t flushed() const { return flushed_; }

  private:
    std::string& buf_;
    std::string& error_;
    std::FILE* file_ = nullptr;
    int64_t flushed_ = 0;
    bool failed_ = false;  // a write failed; the rest of the file is dropped
};

}  // namespace kestrel::corpus::detail
