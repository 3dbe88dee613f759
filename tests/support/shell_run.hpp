#pragma once
// Running a written hook command the way an agent does: through `sh -c`, its payload on standard
// input.

#include <sys/wait.h>

#include <csignal>
#include <cstdio>
#include <string>

namespace kestrel::test_support {

// `command` through `sh -c` with `input` on its standard input; the exit status, or -1.
inline int runShell(const std::string& command, const std::string& input) {
    // A hook that stops reading must show as a short write, not kill the test.
    ::signal(SIGPIPE, SIG_IGN);
    FILE* pipe = ::popen(command.c_str(), "w");
    if (!pipe) {
        return -1;
    }
    ::setvbuf(pipe, nullptr, _IONBF, 0);  // nothing left to flush (and fail) in pclose
    std::fwrite(input.data(), 1, input.size(), pipe);
    const int status = ::pclose(pipe);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace kestrel::test_support
