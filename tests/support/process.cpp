#include "process.h"

#include "temp_directory.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ostream>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace support {
namespace {

constexpr int CANNOT_EXEC = 127;

void redirect(const char* path, int flags, int descriptor) {
    int file = open(path, flags, 0600);
    if (file < 0 || dup2(file, descriptor) < 0) {
        _exit(CANNOT_EXEC);
    }
    close(file);
}

/** The child's side: never returns. */
[[noreturn]] void become(const std::vector<std::string>& command, const std::string& base,
                         const Process::Environment& extra, pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(CANNOT_EXEC);
    }
    redirect("/dev/null", O_RDONLY, STDIN_FILENO);
    redirect((base + ".out").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, STDOUT_FILENO);
    redirect((base + ".err").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, STDERR_FILENO);
    for (const auto& [name, value] : extra) {
        setenv(name.c_str(), value.c_str(), 1);
    }
    std::vector<char*> words;
    words.reserve(command.size() + 1);
    for (const std::string& word : command) {
        words.push_back(const_cast<char*>(word.c_str()));
    }
    words.push_back(nullptr);
    execvp(words[0], words.data());
    dprintf(STDERR_FILENO, "cannot execute %s\n", words[0]);
    _exit(CANNOT_EXEC);
}

Ending endingOf(int status) {
    return WIFEXITED(status) ? exitedWith(WEXITSTATUS(status)) : diedOf(WTERMSIG(status));
}

} // namespace

Process::Process(const std::vector<std::string>& command, std::string base,
                 const Environment& extra)
    : base_(std::move(base)) {
    // Output of an earlier process of the same name must not answer for this one.
    writeFile(base_ + ".out", "");
    writeFile(base_ + ".err", "");
    pid_t parent = getpid();
    pid_ = fork();
    if (pid_ < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (pid_ == 0) {
        become(command, base_, extra, parent);
    }
}

Process::~Process() {
    if (!ending_) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

void Process::signal(int number) {
    if (!ending_) {
        kill(pid_, number);
    }
}

std::optional<Ending> Process::poll() {
    int status = 0;
    if (!ending_ && waitpid(pid_, &status, WNOHANG) == pid_) {
        ending_ = endingOf(status);
    }
    return ending_;
}

Ending Process::wait(std::chrono::milliseconds deadline) {
    if (!waitUntil([this] { return poll().has_value(); }, deadline)) {
        fail("the end of the process");
    }
    return *ending_;
}

std::string Process::waitForOutput(const std::string& text) {
    return waitForLineOf(base_ + ".out", text);
}

std::string Process::waitForError(const std::string& text) {
    return waitForLineOf(base_ + ".err", text);
}

std::string Process::waitForLineOf(const std::string& path, const std::string& text) {
    std::string line;
    waitUntil([&] {
        // The end is looked at first, so that a last line is never missed.
        bool ended = poll().has_value();
        line = findLine(readFile(path), text);
        return !line.empty() || ended;
    });
    if (line.empty()) {
        fail("\"" + text + "\" in " + path);
    }
    return line;
}

void Process::fail(const std::string& what) const {
    throw std::runtime_error("waited in vain for " + what + "\nstandard output:\n" + output() +
                             "standard error:\n" + errorOutput());
}

std::string Process::output() const {
    return readFile(base_ + ".out");
}

std::string Process::errorOutput() const {
    return readFile(base_ + ".err");
}

void PrintTo(const Ending& ending, std::ostream* stream) {
    if (ending.exited) {
        *stream << "exit status " << ending.status;
    } else {
        *stream << "signal " << ending.signal;
    }
}

} // namespace support
