// The readers that take whole JSON documents rather than lines: Gemini's older session files,
// droid's session settings, the editor extensions' task files and opencode's older per-message
// files. The first input byte picks the reader; the rest is the document. For the editor tasks,
// a line holding only "---" splits the input into the messages file and the conversation file.
#include <array>
#include <cstdint>
#include <filesystem>
#include <string_view>

#include "core/sources/source_readers.hpp"
#include "core/sources/stores/opencode_reader.hpp"
#include "tests/fuzz/fuzz_support.hpp"

using namespace kestrel;

namespace {

constexpr std::string_view kSplit = "\n---\n";

void editorTask(AgentSource source, std::string_view text) {
    const auto cut = text.find(kSplit);
    const auto messages = text.substr(0, cut);
    const std::filesystem::path task = "tasks/t1";
    const auto file = fuzz::scratch().write(task / "ui_messages.json", messages);
    std::error_code ec;
    std::filesystem::remove(fuzz::scratch().root() / task / "api_conversation_history.json", ec);
    if (cut != std::string_view::npos) {
        fuzz::scratch().write(task / "api_conversation_history.json", text.substr(cut + kSplit.size()));
    }
    fuzz::readTwice(*SourceReaders::reader(source), source, file);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const auto input = fuzz::select(data, size);
    switch (input.selector % 5) {
    case 0: {
        const auto file = fuzz::scratch().write(".gemini/tmp/p/chats/session-a.json", input.rest);
        fuzz::readTwice(*SourceReaders::reader(AgentSource::gemini), AgentSource::gemini, file);
        break;
    }
    case 1: {
        const auto file = fuzz::scratch().write(".factory/sessions/-w/abc.settings.json", input.rest);
        fuzz::readTwice(*SourceReaders::reader(AgentSource::droid), AgentSource::droid, file);
        break;
    }
    case 2:
        editorTask(AgentSource::rooCode, input.rest);
        break;
    case 3:
        editorTask(AgentSource::kiloCode, input.rest);
        break;
    default: {
        const auto file =
            fuzz::scratch().write("storage/message/ses_1/msg_1.json", input.rest);
        for (const auto source : {AgentSource::opencode, AgentSource::mimo}) {
            const auto read = OpencodeFamily::readLegacyMessage(OpencodeFamily::flavor(source),
                                                                file, [](UsageEvent&& e) {
                                                                    fuzz::expectCleanText(e);
                                                                });
            (void)read;
        }
        break;
    }
    }
    return 0;
}
