#include "cli/command_context.hpp"

#include <fmt/format.h>

namespace kestrel::cli {

void ProgressLine::update(std::size_t done, std::size_t total, std::string_view what) {
    if (!enabled_ || total == 0) {
        return;
    }
    const std::size_t step = done * 1000 / total;
    if (step == lastStep_ && what == lastWhat_) {
        return;
    }
    lastStep_ = step;
    lastWhat_ = what;
    const std::size_t width = 30;
    const std::size_t filled = done * width / total;
    err_ << fmt::format("\r\x1b[2KReading {} [{}{}] {}/{}", what, std::string(filled, '#'),
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
