// Codex rollouts: the input as a rollout file, read once from its start and again from the
// checkpoint (whose parser context carries the running totals), then as a fork's rollout
// of Every Code, and the checkpoint's context through its JSON coding and back.
#include <cstdint>
#include <nlohmann/json.hpp>

#include "core/sources/codex_parser.hpp"
#include "tests/fuzz/fuzz_support.hpp"

using namespace kestrel;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const auto text = fuzz::asText(data, size);
    const auto file = fuzz::scratch().write(
        "sessions/2026/08/21/rollout-2026-08-21T12-15-30-0198c1a2-1111-7222-8333-444455556666.jsonl",
        text);
    fuzz::readTwice(CodexParser::reader(), AgentSource::codex, file, "gpt-5");
    fuzz::readTwice(CodexParser::reader(), AgentSource::everyCode, file);

    // The parser context comes back from the ledger, where it may have been damaged: the input
    // as the context of a read from the start.
    SourceReadContext damaged;
    damaged.source = AgentSource::codex;
    damaged.file = file;
    SourceCheckpoint checkpoint;
    checkpoint.source = AgentSource::codex;
    checkpoint.stableID = SourceCheckpoint::stableIDFor(file);
    checkpoint.byteOffset = 0;
    checkpoint.parserVersion = CodexParser::parserVersion;
    checkpoint.parserContext = std::string(text);
    damaged.checkpoint = checkpoint;
    (void)SourceReaders::collect(CodexParser::reader().ingest, damaged);

    // A context the parser wrote must read back as it was written.
    const auto context = nlohmann::json::parse(text, nullptr, false);
    if (context.is_object()) {
        try {
            const auto decoded = context.get<CodexContext>();
            if (nlohmann::json(decoded).get<CodexContext>() != decoded) {
                fuzz::fail("a CodexContext does not survive its JSON coding");
            }
        } catch (const nlohmann::json::exception&) {
            // A context of the wrong shape: the parser starts the file again.
        }
    }
    return 0;
}
