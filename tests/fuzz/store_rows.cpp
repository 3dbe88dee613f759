// The decoders that turn the cells of an agent's database rows into events (not SQLite itself):
// typed cells, JSON held in cells, times and counts, the row cursor kept in a checkpoint,
// opencode-family messages and parts, and Zstandard-compressed cells. The first input byte
// picks the decoder.
#include <cstdint>
#include <nlohmann/json.hpp>
#include <span>
#include <string>
#include <vector>

#include "core/sources/event_draft.hpp"
#include "core/sources/readonly_sqlite.hpp"
#include "core/sources/stores/opencode_message.hpp"
#include "core/sources/stores/store_rows.hpp"
#include "core/sources/zstd_reader.hpp"
#include "tests/fuzz/fuzz_support.hpp"

using namespace kestrel;

namespace {

void cells(std::string_view text) {
    const std::vector<SQLiteCell> all{
        {std::string(text)},
        {std::vector<unsigned char>(text.begin(), text.end())},
    };
    for (const auto& cell : all) {
        (void)cell.integer();
        (void)cell.real();
        (void)cell.text();
        int64_t count = 0;
        if (StoreRows::cellCount(cell, count) == StoreRows::CountRead::count &&
            (count < 0 || count > StoreRows::kMaxTokenCount)) {
            fuzz::fail("cellCount accepted a count out of range");
        }
        (void)StoreRows::cellText(cell);
        (void)StoreRows::epochSeconds(cell);
        (void)StoreRows::objectIn(cell);
        for (const auto& other : all) {
            if (StoreRows::compareCells(cell, other) != -StoreRows::compareCells(other, cell)) {
                fuzz::fail("compareCells is not antisymmetric");
            }
        }
    }
}

void jsonCell(std::string_view text) {
    const auto object = StoreRows::objectIn(text);
    if (!object) {
        return;
    }
    if (!object->is_object()) {
        fuzz::fail("objectIn gave something other than an object");
    }
    int64_t count = 0;
    if (StoreRows::readCount(*object, {"input_tokens", "inputTokens", "tokens"}, count) ==
            StoreRows::CountRead::count &&
        (count < 0 || count > StoreRows::kMaxTokenCount)) {
        fuzz::fail("readCount accepted a count out of range");
    }
    (void)StoreRows::stringField(*object, {"model", "modelId", "id"});
    for (const auto& [key, value] : object->items()) {
        (void)StoreRows::epochSeconds(value);
    }
}

void opencode(std::string_view text) {
    bool malformed = false;
    const auto part = OpencodeMessage::parseStepFinish(text, malformed);
    const auto parsed = OpencodeMessage::parseMessage(text);
    if (parsed.status != OpencodeMessage::ParseStatus::ok) {
        return;
    }
    const auto& m = parsed.message;
    (void)OpencodeMessage::isForeignID(m.id);
    (void)OpencodeMessage::isNativeID(m.id);
    (void)OpencodeMessage::isImported(m, false, m.sessionID);
    if (const auto counted = OpencodeMessage::countedUsage(m, part)) {
        for (const auto source : {AgentSource::opencode, AgentSource::kiloCLI}) {
            const auto draft = OpencodeMessage::draftFor(source, m, *counted, m.sessionID, m.cwd,
                                                         source == AgentSource::kiloCLI, 1.8e9);
            fuzz::expectCleanText(buildEvent(draft));
        }
    }
}

void cursor(std::string_view text) {
    const std::optional<std::string> stored{std::string(text)};
    for (std::size_t width = 1; width <= 3; ++width) {
        (void)StoreRows::decodeCursor(stored, width);
    }
    (void)StoreRows::rowCursor(stored);
}

void compressed(std::string_view text) {
    constexpr std::size_t kLimit = std::size_t{1} << 20;
    const auto bytes = std::span(reinterpret_cast<const unsigned char*>(text.data()), text.size());
    const auto content = Zstd::decompress(bytes, kLimit);
    if (content && content->size() > kLimit) {
        fuzz::fail("decompress went past its limit");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const auto input = fuzz::select(data, size);
    switch (input.selector % 5) {
    case 0:
        cells(input.rest);
        break;
    case 1:
        jsonCell(input.rest);
        break;
    case 2:
        opencode(input.rest);
        break;
    case 3:
        cursor(input.rest);
        break;
    default:
        compressed(input.rest);
        break;
    }
    return 0;
}
