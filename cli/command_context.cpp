#include "cli/command_context.hpp"

#include <fmt/format.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <thread>

namespace kestrel::cli {

int runUntilSignalled(const std::function<int(std::stop_token)>& run) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigset_t previous;
    pthread_sigmask(SIG_BLOCK, &signals, &previous);

    std::stop_source stopper;
    std::atomic<bool> finished{false};
    // Polls rather than waits for good, so that it ends when `run` returns without a signal.
    std::thread waiter([&] {
        const timespec tick{0, 100'000'000};
        while (!finished) {
            if (sigtimedwait(&signals, nullptr, &tick) > 0) {
                stopper.request_stop();
                return;
            }
        }
    });
    const int code = run(stopper.get_token());
    finished = true;
    waiter.join();
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return code;
}

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
