#include "terminal.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utmp.h>

namespace support {
namespace {

constexpr int CANNOT_EXEC = 127;

struct winsize sizeOf(unsigned short columns) {
    return {.ws_row = 24, .ws_col = columns, .ws_xpixel = 0, .ws_ypixel = 0};
}

} // namespace

Terminal::Terminal(const std::vector<std::string>& command, unsigned short columns,
                   const Process::Environment& extra) {
    struct winsize size = sizeOf(columns);
    if (openpty(&terminal_, &slave_, nullptr, nullptr, &size) != 0) {
        throw std::system_error(errno, std::generic_category(), "openpty");
    }
    fcntl(terminal_, F_SETFD, FD_CLOEXEC);
    pid_ = fork();
    if (pid_ == 0) {
        login_tty(slave_);
        for (const auto& [name, value] : extra) {
            setenv(name.c_str(), value.c_str(), 1);
        }
        std::vector<char*> words;
        for (const std::string& word : command) {
            words.push_back(const_cast<char*>(word.c_str()));
        }
        words.push_back(nullptr);
        execvp(words[0], words.data());
        _exit(CANNOT_EXEC);
    }
}

Terminal::~Terminal() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    close(slave_);
    close(terminal_);
}

void Terminal::type(const std::string& keys) const {
    if (write(terminal_, keys.data(), keys.size()) != static_cast<ssize_t>(keys.size())) {
        throw std::system_error(errno, std::generic_category(), "type");
    }
}

void Terminal::resize(unsigned short columns) const {
    struct winsize size = sizeOf(columns);
    ioctl(terminal_, TIOCSWINSZ, &size);
}

/** Waits a moment for output. @return whether there was any */
bool Terminal::readSome() {
    struct pollfd input = {terminal_, POLLIN, 0};
    if (poll(&input, 1, 20) <= 0) {
        return false;
    }
    char bytes[4096];
    ssize_t count = read(terminal_, bytes, sizeof(bytes));
    output_.append(bytes, static_cast<size_t>(std::max<ssize_t>(count, 0)));
    return count > 0;
}

std::string Terminal::waitFor(const std::string& text) {
    requireSoon(
        [&] {
            readSome();
            return output_.find(text) != std::string::npos;
        },
        "'" + text + "' on the terminal");
    return output_;
}

std::string Terminal::wait(Ending* ending) {
    int status = 0;
    requireSoon(
        [&] {
            readSome();
            return waitpid(pid_, &status, WNOHANG) == pid_;
        },
        "the end of a program on a terminal");
    pid_ = -1;
    *ending = WIFEXITED(status) ? exitedWith(WEXITSTATUS(status)) : diedOf(WTERMSIG(status));
    while (readSome()) {
    }
    return output_;
}

struct termios Terminal::settings() const {
    struct termios now {};
    tcgetattr(slave_, &now);
    return now;
}

} // namespace support
