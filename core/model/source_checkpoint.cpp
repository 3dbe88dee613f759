#include "core/model/source_checkpoint.hpp"

#include <nlohmann/json.hpp>

#include "core/model/base64.hpp"
#include "core/model/json_enum.hpp"

namespace kestrel {

using jsonenum::optional;
using jsonenum::readOptional;

void to_json(nlohmann::json& j, const SourceCheckpoint& c) {
    j = nlohmann::json::object();
    j["source"] = jsonenum::encode(c.source);
    j["stableID"] = c.stableID;
    j["pathHint"] = c.pathHint;
    j["inode"] = optional(c.inode);
    j["byteOffset"] = optional(c.byteOffset);
    j["partialLineStart"] = optional(c.partialLineStart);
    j["logicalHighWater"] = optional(c.logicalHighWater);
    j["parserContext"] = base64::encode(c.parserContext);
    j["lastCumulative"] = optional(c.lastCumulative);
    j["contentFingerprint"] = optional(c.contentFingerprint);
    j["parserVersion"] = c.parserVersion;
    j["schemaVersion"] = c.schemaVersion;
    j["fileStamp"] = optional(c.fileStamp);
}

void from_json(const nlohmann::json& j, SourceCheckpoint& c) {
    c.source = jsonenum::decode<AgentSource>(j.at("source"));
    c.stableID = j.at("stableID").get<std::string>();
    c.pathHint = j.value("pathHint", c.stableID);
    c.inode = readOptional<uint64_t>(j, "inode");
    c.byteOffset = readOptional<int64_t>(j, "byteOffset");
    c.partialLineStart = readOptional<int64_t>(j, "partialLineStart");
    c.logicalHighWater = readOptional<std::string>(j, "logicalHighWater");
    c.parserContext.clear();
    if (auto ctx = readOptional<std::string>(j, "parserContext")) {
        auto bytes = base64::decode(*ctx);
        if (!bytes) {
            throw nlohmann::json::other_error::create(502, "parserContext is not base64", &j);
        }
        c.parserContext = std::move(*bytes);
    }
    c.lastCumulative = readOptional<TokenSnapshot>(j, "lastCumulative");
    c.contentFingerprint = readOptional<std::string>(j, "contentFingerprint");
    c.parserVersion = j.value("parserVersion", int64_t{0});
    c.schemaVersion = j.value("schemaVersion", int64_t{1});
    c.fileStamp = readOptional<std::string>(j, "fileStamp");
}

std::string SourceCheckpoint::stableIDFor(const std::filesystem::path& path) {
    std::error_code ec;
    const auto absolute = std::filesystem::absolute(path, ec);
    return (ec ? path : absolute).lexically_normal().string();
}

}  // namespace kestrel
