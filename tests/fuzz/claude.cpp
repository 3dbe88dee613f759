// Claude Code transcripts: each line through the line reader on its own, in a buffer of exactly
// its size (so that the sanitizer sees any read past the line's end), then the whole input as a
// transcript file through the parser.
#include <cstdint>
#include <cstring>
#include <memory>

#include "core/sources/claude_line_reader.hpp"
#include "core/sources/claude_parser.hpp"
#include "tests/fuzz/fuzz_support.hpp"

using namespace kestrel;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const auto text = fuzz::asText(data, size);

    static ClaudeLineReader lineReader;
    std::size_t start = 0;
    while (start <= text.size()) {
        const auto end = std::min(text.find('\n', start), text.size());
        const std::size_t length = end - start;
        auto exact = std::make_unique<char[]>(length == 0 ? 1 : length);
        std::memcpy(exact.get(), text.data() + start, length);
        ClaudeRecord record;
        (void)lineReader.read({exact.get(), length}, 0, record);
        start = end + 1;
    }

    const auto file = fuzz::scratch().write("projects/-Users-dev-app/session.jsonl", text);
    fuzz::readTwice(ClaudeParser::reader(), AgentSource::claude, file);
    return 0;
}
