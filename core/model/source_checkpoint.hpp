#pragma once
// Where a reader stopped in one file or database, so that the next scan reads only what is new.

#include <cstdint>
#include <filesystem>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "core/model/agent_source.hpp"
#include "core/model/tokens.hpp"

namespace kestrel {

struct SourceCheckpoint {
    AgentSource source = AgentSource::claude;
    std::string stableID;  // identity of the file or database within the source (its path)
    std::string pathHint;  // the path as last seen, for display and re-location
    std::optional<uint64_t> inode;
    std::optional<int64_t> byteOffset;            // just past the last complete line consumed
    std::optional<int64_t> partialLineStart;      // where an unterminated last line began
    std::optional<std::string> logicalHighWater;  // database sources: last row key consumed
    std::string parserContext;  // opaque bytes owned by the parser that wrote them
    std::optional<TokenSnapshot> lastCumulative;
    std::optional<std::string> contentFingerprint;  // boundary fingerprint at byteOffset
    int64_t parserVersion = 0;
    int64_t schemaVersion = 1;
    std::optional<std::string> fileStamp;  // "<size>:<mtime ns>" at the last read

    bool operator==(const SourceCheckpoint&) const = default;

    // The stable id of the file at `path`: its absolute, lexically normal path. Readers stamp
    // it and the scan looks checkpoints up by it, so both must build it here.
    static std::string stableIDFor(const std::filesystem::path& path);
};

// JSON with the field names as keys; `parserContext` as base64 text since it is raw bytes.
void to_json(nlohmann::json& j, const SourceCheckpoint& c);
void from_json(const nlohmann::json& j, SourceCheckpoint& c);

}  // namespace kestrel
