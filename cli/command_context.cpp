#include "cli/command_context.hpp"

#include <fmt/format.h>

namespace kestrel::cli {

void ProgressLine::update(std::size_t done, std::size_t total) {
    if (!enabled_ || total == 0 || done == lastDone_) {
        return;
    }
    lastDone_ = done;
    const std::size_t width = 30;
    const std::size_t filled = done * width / total;
    err_ << fmt::format("\r\x1b[2KReading transcripts [{}{}] {}/{}", std::string(filled, '#'),
                        std::string(width - filled, '.'), done, total)
         << std::flush;
    shown_ = true;
}

void ProgressLine::clear() {
    if (shown_) {
        err_ << "\r\x1b[2K" << std::flush;
        shown_ = false;
    }
}

}  // namespace kestrel::cli
