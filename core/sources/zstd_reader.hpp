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
#include <expected>
#include <filesystem>
#include <span>
#include <string>

#include "core/sources/file_error.hpp"
#include "core/sources/jsonl.hpp"

namespace kestrel::Zstd {

// Streams every line of the decompressed content through `onLine`, with the same guarantees as
// JSONL::forEachCompleteLine (no "\n", a trailing "\r" removed, JSONL::kLinePadding readable
// bytes after each line, offsets into the decompressed text). A last line without a line feed
// is delivered too: the file is finished, nobody is still writing it. ReadEnd.nextOffset is the
// decompressed length and partialStart is never set. Fails when the file cannot be opened or
// read, or when its content is not a complete Zstandard stream (operation "decompress").
std::expected<JSONL::ReadEnd, FileError> forEachLine(
    const std::filesystem::path& path, const JSONL::LineHandler& onLine,
    std::size_t maxLineBytes = JSONL::kDefaultMaxLineBytes);

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
