#include "child.h"

#include "error.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace blade {
namespace {

constexpr int CANNOT_EXECUTE = 127;

/** The child's side; never returns. Nothing here allocates: the parent may have held locks. */
[[noreturn]] void become(char* const* words, int output, int kept, pid_t parent) {
    setpgid(0, 0);
    ::signal(SIGPIPE, SIG_DFL);
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) {
        _exit(CANNOT_EXECUTE);
    }
    int empty = open("/dev/null", O_RDONLY);
    dup2(empty, STDIN_FILENO);
    if (output >= 0) {
        dup2(output, STDOUT_FILENO);
    }
    if (kept >= 0) {
        fcntl(kept, F_SETFD, 0);
    }
    execvp(words[0], words);
    dprintf(STDERR_FILENO, "blade: cannot execute %s: %s\n", words[0], strerror(errno));
    _exit(CANNOT_EXECUTE);
}

bool asksToEnd(int number) {
    return number == SIGTERM || number == SIGINT || number == SIGHUP;
}

std::string describe(const std::string& name, pid_t pid, int status) {
    std::string who = name + " (pid " + std::to_string(pid) + ") ";
    if (WIFEXITED(status)) {
        return who + "exited with status " + std::to_string(WEXITSTATUS(status));
    }
    return who + "died of signal " + std::to_string(WTERMSIG(status)) + " (" +
           strsignal(WTERMSIG(status)) + ")";
}

} // namespace

Child::~Child() {
    if (running()) {
        signal(SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

void Child::start(std::string name, const std::vector<std::string>& command, int output, int kept) {
    name_ = std::move(name);
    std::vector<char*> words;
    words.reserve(command.size() + 1);
    for (const std::string& word : command) {
        words.push_back(const_cast<char*>(word.c_str()));
    }
    words.push_back(nullptr);
    sent_.clear();
    pid_t parent = getpid();
    pid_ = fork();
    if (pid_ < 0) {
        throw BladeError("cannot start " + name_ + ": " + strerror(errno));
    }
    if (pid_ == 0) {
        become(words.data(), output, kept, parent);
    }
}

void Child::signal(int number) {
    if (running()) {
        kill(pid_, number);
        sent_.insert(number);
    }
}

bool Child::reap() {
    int status = 0;
    if (!running() || waitpid(pid_, &status, WNOHANG) != pid_) {
        return false;
    }
    ending_ = describe(name_, pid_, status);
    diedByItself_ = WIFSIGNALED(status) && !sent_.contains(WTERMSIG(status));
    failed_ = WIFSIGNALED(status) ? !asksToEnd(WTERMSIG(status)) : WEXITSTATUS(status) != 0;
    pid_ = -1;
    return true;
}

} // namespace blade
