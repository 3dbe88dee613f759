#include "core/sources/jsonl.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <future>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

namespace fs = std::filesystem;
using test_support::TempDir;

constexpr std::size_t kChunk = 4096;  // the smallest chunk the reader accepts
constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();

struct Line {
    std::string text;
    int64_t offset = 0;
    bool operator==(const Line&) const = default;
};

struct Read {
    std::vector<Line> lines;
    int64_t nextOffset = 0;
    std::optional<int64_t> partialStart;
    int64_t oversized = 0;
};

// The straightforward whole-file split that the streamed reader must agree with.
Read referenceRead(std::string_view content, int64_t from, std::size_t maxLine = kNoLimit) {
    Read out;
    out.nextOffset = from;
    const auto size = static_cast<int64_t>(content.size());
    if (from >= size) {
        return out;
    }
    std::size_t pos = static_cast<std::size_t>(from);
    for (std::size_t nl; (nl = content.find('\n', pos)) != std::string_view::npos; pos = nl + 1) {
        std::string_view raw = content.substr(pos, nl - pos);
        if (raw.size() > maxLine) {
            ++out.oversized;
            continue;
        }
        if (raw.ends_with('\r')) {
            raw.remove_suffix(1);
        }
        out.lines.push_back({std::string(raw), static_cast<int64_t>(pos)});
    }
    out.nextOffset = static_cast<int64_t>(pos);
    if (out.nextOffset < size) {
        out.partialStart = out.nextOffset;
    }
    return out;
}

Read streamRead(const fs::path& path, int64_t from,
                std::size_t maxLine = JSONL::kDefaultMaxLineBytes) {
    Read out;
    auto end = JSONL::forEachCompleteLine(
        path, from,
        [&](std::string_view line, int64_t offset) {
            out.lines.push_back({std::string(line), offset});
        },
        kChunk, maxLine);
    if (!end) {
        ADD_FAILURE() << "unexpected error: " << end.error().description();
        return out;
    }
    EXPECT_EQ(end->lines, static_cast<int64_t>(out.lines.size()));
    out.nextOffset = end->nextOffset;
    out.partialStart = end->partialStart;
    out.oversized = end->oversizedLines;
    return out;
}

// Field-by-field, reporting the first differing line rather than dumping kilobytes of text.
void expectSameRead(const Read& actual, const Read& expected) {
    EXPECT_EQ(actual.nextOffset, expected.nextOffset);
    EXPECT_EQ(actual.partialStart, expected.partialStart);
    EXPECT_EQ(actual.oversized, expected.oversized);
    ASSERT_EQ(actual.lines.size(), expected.lines.size());
    for (std::size_t i = 0; i < actual.lines.size(); ++i) {
        ASSERT_EQ(actual.lines[i].offset, expected.lines[i].offset) << "line " << i;
        ASSERT_TRUE(actual.lines[i].text == expected.lines[i].text)
            << "line " << i << " at " << expected.lines[i].offset << ": got "
            << actual.lines[i].text.size() << " bytes, expected " << expected.lines[i].text.size();
    }
}

// Lines of every awkward length relative to the chunk: empty, short, straddling one chunk, and
// several chunks long; arbitrary bytes (NUL, stray CR, non-UTF-8) apart from the line feed.
std::string randomContent(std::mt19937_64& rng, int lineCount, bool terminateLast) {
    std::uniform_int_distribution<int> kind(0, 9);
    std::uniform_int_distribution<int> byte(0, 255);
    std::string out;
    for (int i = 0; i < lineCount; ++i) {
        const int k = kind(rng);
        const std::size_t length = k < 2   ? rng() % 3
                                   : k < 6 ? 1 + rng() % 200
                                   : k < 8 ? kChunk - 100 + rng() % 200
                                           : rng() % (3 * kChunk + 100);
        for (std::size_t k = 0; k < length; ++k) {
            char c = static_cast<char>(byte(rng));
            out += c == '\n' ? 'x' : c;
        }
        const bool last = i + 1 == lineCount;
        if (!last || terminateLast) {
            out += rng() % 4 == 0 ? "\r\n" : "\n";
        }
    }
    return out;
}

TEST(JsonlStreamTest, AgreesWithWholeFileSplitFromEveryKindOfOffset) {
    for (uint64_t seed = 1; seed <= 16; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937_64 rng(seed);
        const std::string content =
            randomContent(rng, 10 + static_cast<int>(rng() % 60), seed % 2 == 0);
        TempDir dir;
        const auto path = dir.write("log.jsonl", content);

        const Read all = referenceRead(content, 0);
        std::vector<int64_t> offsets{0, static_cast<int64_t>(content.size())};
        for (int k = 0; k < 6 && !all.lines.empty(); ++k) {
            offsets.push_back(all.lines[rng() % all.lines.size()].offset);
        }
        if (all.partialStart) {
            offsets.push_back(*all.partialStart);
        }
        for (const int64_t from : offsets) {
            SCOPED_TRACE("from " + std::to_string(from));
            expectSameRead(streamRead(path, from), referenceRead(content, from));
        }
    }
}

TEST(JsonlStreamTest, GrowingFileDeliversEveryLineExactlyOnce) {
    for (uint64_t seed = 100; seed < 112; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937_64 rng(seed);
        const std::string content = randomContent(rng, 40, true);
        TempDir dir;
        const auto path = dir.write("log.jsonl", "");

        // Appends cut anywhere: inside a line, between "\r" and "\n", right after a line feed.
        std::vector<Line> delivered;
        int64_t offset = 0;
        std::size_t written = 0;
        while (written < content.size()) {
            const std::size_t piece =
                std::min<std::size_t>(content.size() - written, 1 + rng() % (2 * kChunk));
            dir.append("log.jsonl", std::string_view(content).substr(written, piece));
            written += piece;

            const Read got = streamRead(path, offset);
            expectSameRead(got,
                           referenceRead(std::string_view(content).substr(0, written), offset));
            delivered.insert(delivered.end(), got.lines.begin(), got.lines.end());
            offset = got.nextOffset;
        }
        EXPECT_EQ(offset, static_cast<int64_t>(content.size()));
        const Read whole = referenceRead(content, 0);
        ASSERT_EQ(delivered.size(), whole.lines.size());
        EXPECT_TRUE(delivered == whole.lines);
    }
}

TEST(JsonlReadTest, UnfinishedLineIsReadWholeOnceTerminated) {
    TempDir dir;
    const auto path = dir.write("s.jsonl", "a\nb\nparti");

    auto first = JSONL::readCompleteLines(path, 0);
    ASSERT_TRUE(first);
    EXPECT_EQ(*first, (JSONL::Slice{{"a", "b"}, 4, 4}));

    dir.append("s.jsonl", "al");
    auto second = JSONL::readCompleteLines(path, first->nextOffset);
    ASSERT_TRUE(second);
    EXPECT_EQ(*second, (JSONL::Slice{{}, 4, 4}));

    dir.append("s.jsonl", "\n");
    auto third = JSONL::readCompleteLines(path, second->nextOffset);
    ASSERT_TRUE(third);
    EXPECT_EQ(*third, (JSONL::Slice{{"partial"}, 12, std::nullopt}));
}

TEST(JsonlReadTest, EdgeCases) {
    struct Case {
        const char* name;
        std::string content;
        int64_t from;
        JSONL::Slice expected;
    };
    const std::vector<Case> cases = {
        {"empty file", "", 0, {{}, 0, std::nullopt}},
        {"CRLF endings lose the CR", "a\r\nb\r\n", 0, {{"a", "b"}, 6, std::nullopt}},
        {"only one trailing CR is removed", "a\r\r\nb\rc\n", 0, {{"a\r", "b\rc"}, 8, std::nullopt}},
        {"CR of an unfinished line", "a\r\nb\r", 0, {{"a"}, 3, 3}},
        {"empty lines are delivered", "\n\r\n\n{}\n", 0, {{"", "", "", "{}"}, 7, std::nullopt}},
        {"no line feed at all", "{\"a\":1}", 0, {{}, 0, 0}},
        {"one-byte unfinished line", "a\nb", 0, {{"a"}, 2, 2}},
        {"no line feed after the offset", "x\n{\"a\":1}", 2, {{}, 2, 2}},
        {"offset at end of file", "a\nb\n", 4, {{}, 4, std::nullopt}},
        {"offset beyond end of file", "a\nb\n", 50, {{}, 50, std::nullopt}},
        {"offset in the middle of a line", "abc\ndef\n", 1, {{"bc", "def"}, 8, std::nullopt}},
        {"negative offset reads from the start", "a\nb\n", -7, {{"a", "b"}, 4, std::nullopt}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        const auto path = dir.write("f.jsonl", c.content);
        auto slice = JSONL::readCompleteLines(path, c.from);
        ASSERT_TRUE(slice) << slice.error().description();
        EXPECT_EQ(*slice, c.expected);
    }
}

// A line over the limit is consumed and counted but never handed out, however the chunk
// boundaries fall and whether its end arrives in the same read or a later one.
TEST(JsonlStreamTest, OverlongLinesAreSkippedAndCounted) {
    constexpr std::size_t kMax = 10000;
    for (const std::size_t length : {kMax + 1, std::size_t{12000}, std::size_t{16000},
                                     std::size_t{20000}, std::size_t{50000}}) {
        SCOPED_TRACE("line of " + std::to_string(length));
        const std::string content = "first\n" + std::string(length, 'x') + "\nafter\n\nlast\n";
        TempDir dir;
        const auto path = dir.write("f.jsonl", content);
        const Read got = streamRead(path, 0, kMax);
        const Read expected = referenceRead(content, 0, kMax);
        ASSERT_EQ(expected.oversized, 1);
        expectSameRead(got, expected);
    }
}

TEST(JsonlStreamTest, LimitHoldsWhenLimitIsBelowChunkSize) {
    const std::string content = "short\n" + std::string(500, 'y') + "\nnext\n";
    TempDir dir;
    const auto path = dir.write("f.jsonl", content);
    expectSameRead(streamRead(path, 0, 100), referenceRead(content, 0, 100));
}

TEST(JsonlStreamTest, OverlongTailIsLeftUnconsumedAndSkippedOnceFinished) {
    constexpr std::size_t kMax = 10000;
    for (const std::size_t length : {kMax, kMax + 1, std::size_t{12000}, std::size_t{30000}}) {
        SCOPED_TRACE("tail of " + std::to_string(length));
        TempDir dir;
        const std::string head = "one\ntwo\n";
        const auto path = dir.write("f.jsonl", head + std::string(length, 'z'));

        const Read pending = streamRead(path, 0, kMax);
        EXPECT_EQ(pending.lines.size(), 2u);
        EXPECT_EQ(pending.nextOffset, static_cast<int64_t>(head.size()));
        EXPECT_EQ(pending.partialStart, static_cast<int64_t>(head.size()));

        dir.append("f.jsonl", "\nend\n");
        const std::string full = head + std::string(length, 'z') + "\nend\n";
        expectSameRead(streamRead(path, pending.nextOffset, kMax),
                       referenceRead(full, pending.nextOffset, kMax));
    }
}

TEST(JsonlReadTest, UnopenableFilesAreErrorsNamingThePath) {
    TempDir dir;
    fs::create_directory(dir / "folder.jsonl");
    const auto locked = dir.write("locked.jsonl", "a\n");
    fs::permissions(locked, fs::perms::none);
    const bool root = ::geteuid() == 0;  // permissions are not enforced for root
    for (const auto& [path, errorNumber] : {std::pair{dir / "missing.jsonl", ENOENT},
                                            {dir / "folder.jsonl", 0},
                                            {locked, root ? -1 : EACCES}}) {
        if (errorNumber < 0) {
            continue;
        }
        auto result = JSONL::readCompleteLines(path, 0);
        ASSERT_FALSE(result) << path;
        EXPECT_NE(result.error().description().find(path.string()), std::string::npos);
        if (errorNumber) {
            EXPECT_EQ(result.error().errorNumber, errorNumber);
        }
    }
}

// Nobody writes to the FIFO: a reader that blocks on it would stall a whole scan.
TEST(JsonlReadTest, FifoIsRejectedWithoutBlocking) {
    TempDir dir;
    const auto fifo = dir / "pipe.jsonl";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);

    auto pending =
        std::async(std::launch::async, [&] { return JSONL::readCompleteLines(fifo, 0); });
    if (pending.wait_for(std::chrono::seconds(5)) != std::future_status::ready) {
        ADD_FAILURE() << "reading a FIFO blocked";
        // Release the reader: a writer that opens and closes gives it end of file.
        const int fd = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
        if (fd >= 0) {
            ::close(fd);
        }
    }
    auto result = pending.get();
    ASSERT_FALSE(result);
    EXPECT_NE(result.error().description().find(fifo.string()), std::string::npos);
}

// ---- boundaryFingerprint ---------------------------------------------------------------

std::string randomBytes(std::size_t n, uint64_t seed) {
    std::mt19937_64 rng(seed);
    std::string out(n, '\0');
    for (auto& c : out) {
        c = static_cast<char>(rng());
    }
    return out;
}

TEST(JsonlFingerprintTest, AbsentWhenFileIsShorterOrMissing) {
    TempDir dir;
    const auto path = dir.write("f.jsonl", randomBytes(5000, 1));
    EXPECT_TRUE(JSONL::boundaryFingerprint(path, 5000));
    // The covered length is part of the fingerprint, not only the sampled bytes.
    EXPECT_NE(JSONL::boundaryFingerprint(path, 5000), JSONL::boundaryFingerprint(path, 4999));
    EXPECT_EQ(JSONL::boundaryFingerprint(path, 0)->size(), 64u);  // hex SHA-256
    EXPECT_FALSE(JSONL::boundaryFingerprint(path, 5001));
    EXPECT_FALSE(JSONL::boundaryFingerprint(dir / "missing.jsonl", 0));
    fs::create_directory(dir / "folder");
    EXPECT_FALSE(JSONL::boundaryFingerprint(dir / "folder", 0));

    // Truncated below a stored offset: the file was rewritten.
    const auto stored = JSONL::boundaryFingerprint(path, 4500);
    ASSERT_TRUE(stored);
    fs::resize_file(path, 4000);
    EXPECT_FALSE(JSONL::boundaryFingerprint(path, 4500));
}

TEST(JsonlFingerprintTest, ChangesWithCoveredBytesOnly) {
    constexpr int64_t kThrough = 10000;
    const std::string original = randomBytes(12000, 3);
    TempDir dir;
    const auto path = dir.write("f.jsonl", original);
    const auto base = JSONL::boundaryFingerprint(path, kThrough);
    ASSERT_TRUE(base);

    struct Case {
        std::size_t position;
        bool covered;
    };
    // Head window [0, 4096), tail window [5904, 10000); between and after them is not sampled.
    for (const Case c :
         {Case{0, true}, Case{4095, true}, Case{5904, true}, Case{9999, true}, Case{4096, false},
          Case{5903, false}, Case{10000, false}, Case{11999, false}}) {
        SCOPED_TRACE("byte " + std::to_string(c.position));
        std::string changed = original;
        changed[c.position] = static_cast<char>(changed[c.position] ^ 0x20);
        dir.write("f.jsonl", changed);
        const auto fingerprint = JSONL::boundaryFingerprint(path, kThrough);
        ASSERT_TRUE(fingerprint);
        EXPECT_EQ(*fingerprint != *base, c.covered);
    }
    dir.write("f.jsonl", original);
    dir.append("f.jsonl", "more lines\n");
    EXPECT_EQ(JSONL::boundaryFingerprint(path, kThrough), base);
}

TEST(JsonlInodeTest, MatchesStatAndFollowsReplacement) {
    TempDir dir;
    const auto path = dir.write("f.jsonl", "a\n");
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(JSONL::inode(path), static_cast<uint64_t>(st.st_ino));

    dir.append("f.jsonl", "b\n");
    EXPECT_EQ(JSONL::inode(path), static_cast<uint64_t>(st.st_ino));

    const auto replacement = dir.write("new.jsonl", "a\n");
    fs::rename(replacement, path);
    EXPECT_NE(JSONL::inode(path), static_cast<uint64_t>(st.st_ino));

    EXPECT_FALSE(JSONL::inode(dir / "missing.jsonl"));
}

}  // namespace
}  // namespace kestrel
