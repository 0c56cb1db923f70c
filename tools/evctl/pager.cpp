#include "evctl/pager.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <iostream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace evctl {
namespace {

bool isOnPath(const std::string& program) {
    const char* path = getenv("PATH");
    std::string rest = path != nullptr ? path : "";
    while (!rest.empty()) {
        size_t colon = rest.find(':');
        if (access((rest.substr(0, colon) + "/" + program).c_str(), X_OK) == 0) {
            return true;
        }
        rest = colon == std::string::npos ? "" : rest.substr(colon + 1);
    }
    return false;
}

/** An empty text: none. */
std::string pagerCommand() {
    for (const char* variable : {"EVCTL_PAGER", "PAGER"}) {
        if (const char* value = getenv(variable)) {
            return std::string(value) == "cat" ? "" : value;
        }
    }
    return isOnPath("less") ? "less" : "";
}

[[noreturn]] void becomePager(const std::string& command, int input) {
    dup2(input, STDIN_FILENO);
    // Ends by itself when all fits, shows colours, leaves long lines to be scrolled.
    setenv("LESS", "FRSXMK", 0);
    execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
    _exit(127);
}

} // namespace

Pager::Pager(bool wanted) {
    std::string command = wanted && isatty(STDOUT_FILENO) != 0 ? pagerCommand() : "";
    int ends[2];
    if (command.empty() || pipe2(ends, O_CLOEXEC) != 0) {
        return;
    }
    process_ = fork();
    if (process_ == 0) {
        becomePager(command, ends[0]);
    }
    if (process_ > 0) {
        // Who has seen enough leaves; that is met as a failed write.
        signal(SIGPIPE, SIG_IGN);
        terminal_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        dup2(ends[1], STDOUT_FILENO);
    }
    close(ends[0]);
    close(ends[1]);
}

Pager::~Pager() {
    if (!isThere()) {
        return;
    }
    std::cout.flush();
    std::cout.clear();
    dup2(terminal_, STDOUT_FILENO);
    close(terminal_);
    while (waitpid(process_, nullptr, 0) < 0 && errno == EINTR) {
    }
}

} // namespace evctl
