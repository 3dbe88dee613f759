#pragma once
// Line-by-line reading of Zstandard-compressed JSON-lines files (agents archive finished
// sessions this way). The file is decompressed as a stream, so memory is bounded by the chunk
// sizes plus the longest line, never by the file size.
//
// A compressed file cannot be read incrementally: an offset into the decompressed text does not
// map to a place in the compressed bytes, so there is nowhere to resume from. Readers therefore
// read such a file whole each time its size-and-mtime stamp changes, and rely on event
// identities to make the repeated events harmless.

#include <cstddef>
#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <span>
#include <string>

#include "core/sources/file_error.hpp"
#include "core/sources/jsonl.hpp"

namespace kestrel::Zstd {

// A compressed file whose content grows past this many times its own size, and past
// kMinContentCap, is a decompression bomb rather than an agent's archive: JSON lines compress
// tenfold or so, a thousandfold only when made to.
inline constexpr uint64_t kMaxExpansion = 1000;
inline constexpr uint64_t kMinContentCap = uint64_t{256} << 20;

// The content cap for a compressed file of `compressedBytes`.
uint64_t contentCap(uint64_t compressedBytes);

// Streams every line of the decompressed content through `onLine`, with the same guarantees as
// JSONL::forEachCompleteLine (no "\n", a trailing "\r" removed, JSONL::kLinePadding readable
// bytes after each line, offsets into the decompressed text). A last line without a line feed
// is delivered too: the file is finished, nobody is still writing it. ReadEnd.nextOffset is the
// decompressed length and partialStart is never set. Fails when the file cannot be opened or
// read, when its content is not a complete Zstandard stream, or when the content grows past
// `maxContentBytes` (contentCap of the file's size when not given; errno EFBIG); all with
// operation "decompress". Lines delivered before such a failure are the caller's to drop.
std::expected<JSONL::ReadEnd, FileError> forEachLine(
    const std::filesystem::path& path, const JSONL::LineHandler& onLine,
    std::size_t maxLineBytes = JSONL::kDefaultMaxLineBytes,
    std::optional<uint64_t> maxContentBytes = std::nullopt);

// Why an in-memory decompression gave nothing.
enum class DecompressFailure {
    damaged,   // not Zstandard data, or a frame cut off
    tooLarge,  // the content is longer than the caller's limit
};

// The whole content of the Zstandard frames in `compressed` (a database cell, say), at most
// `maxBytes` long: the output grows as it is decoded, so a small bomb of a frame cannot claim
// more memory than the limit allows, whatever size its header announces.
std::expected<std::string, DecompressFailure> decompress(std::span<const unsigned char> compressed,
                                                         std::size_t maxBytes);

}  // namespace kestrel::Zstd
