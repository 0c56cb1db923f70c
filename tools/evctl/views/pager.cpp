#include "evctl/views/pager.h"

#include "common/cli.h"
#include "common/text.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <iostream>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace evctl {
namespace {

// Ends by itself when all fits, shows colours, leaves long lines to be scrolled.
constexpr char LESS_OPTIONS[] = "FRSXMK";

bool isProgram(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
           access(path.c_str(), X_OK) == 0;
}

bool isOnPath(const std::string& program) {
    const char* path = getenv("PATH");
    std::string rest = path != nullptr ? path : "";
    while (!rest.empty()) {
        size_t colon = rest.find(':');
        if (isProgram(rest.substr(0, colon) + "/" + program)) {
            return true;
        }
        rest = colon == std::string::npos ? "" : rest.substr(colon + 1);
    }
    return false;
}

/** The words of a command that is nothing but words; none when only a shell can tell them. */
std::vector<std::string> plainWords(const std::string& command) {
    std::vector<std::string> words;
    if (command.find_first_of("\"'\\$`~*?[]{}()<>|&;#!=\n") == std::string::npos) {
        std::istringstream stream(command);
        for (std::string word; stream >> word;) {
            words.push_back(word);
        }
    }
    return words;
}

/** Whether less, with these of its options, passes colours on: -R or -r, also among others. */
bool hasRawOption(const std::string& options) {
    std::istringstream stream(options);
    for (std::string word; stream >> word;) {
        if (word.starts_with("--")) {
            if (word == "--RAW-CONTROL-CHARS" || word == "--raw-control-chars") {
                return true;
            }
        } else if (size_t end = word.find_first_of("bDhjkoOpPtTxyz#\""); // a text follows these
                   word.substr(0, end).find_first_of("Rr") != std::string::npos) {
            return true;
        }
    }
    return false;
}

/** An empty text: none. */
std::string wantedCommand() {
    for (const char* variable : {"EVCTL_PAGER", "PAGER"}) {
        if (const char* value = getenv(variable)) {
            return std::string(value) == "cat" ? "" : value;
        }
    }
    for (const char* program : {"less", "more"}) {
        if (isOnPath(program)) {
            return program;
        }
    }
    return "";
}

PagerCommand findPager() {
    PagerCommand command = pagerCommandOf(wantedCommand(), getenv("LESS"));
    if (!command.canBeRun) {
        std::cerr << "evctl: the pager '" << tools::escapedText(command.text)
                  << "' cannot be run; going on without. EVCTL_PAGER and PAGER name one\n";
        command.text.clear();
    }
    return command;
}

[[noreturn]] void becomePager(const std::string& command, int input) {
    dup2(input, STDIN_FILENO);
    setenv("LESS", LESS_OPTIONS, 0);
    execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
    _exit(127);
}

} // namespace

PagerCommand pagerCommandOf(const std::string& text, const char* lessOptions) {
    PagerCommand command = {.text = text};
    std::vector<std::string> words = plainWords(text);
    if (words.empty()) {
        command.showsColours = false;
        return command;
    }
    const std::string& program = words.front();
    command.canBeRun =
        program.find('/') == std::string::npos ? isOnPath(program) : isProgram(program);
    std::string name = program.substr(program.rfind('/') + 1);
    std::string options = lessOptions != nullptr ? lessOptions : LESS_OPTIONS;
    for (size_t at = 1; at < words.size(); at++) {
        options += words[at].starts_with("-") ? " " + words[at] : "";
    }
    command.showsColours = name == "more" || (name == "less" && hasRawOption(options));
    return command;
}

Pager::Pager(bool wanted) {
    if (wanted && isatty(STDOUT_FILENO) != 0) {
        command_ = findPager();
    }
    int ends[2];
    if (command_.text.empty() || pipe2(ends, O_CLOEXEC) != 0) {
        return;
    }
    process_ = fork();
    if (process_ == 0) {
        becomePager(command_.text, ends[0]);
    }
    if (process_ > 0) {
        // Who has seen enough leaves; that is met as a failed write.
        signal(SIGPIPE, SIG_IGN);
        // Who dies before the pager leaves it to fight with the shell for the terminal.
        signal(SIGINT, SIG_IGN);
        signal(SIGQUIT, SIG_IGN);
        terminal_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        dup2(ends[1], STDOUT_FILENO);
    }
    close(ends[0]);
    close(ends[1]);
}

Pager::~Pager() {
    finish();
}

bool Pager::finish() {
    if (!isThere()) {
        return true;
    }
    std::cout.flush();
    std::cout.clear();
    dup2(terminal_, STDOUT_FILENO);
    close(terminal_);
    int status = 0;
    while (waitpid(process_, &status, 0) < 0 && errno == EINTR) {
    }
    process_ = -1;
    signal(SIGINT, SIG_DFL);
    signal(SIGQUIT, SIG_DFL);
    // What a shell ends with when it cannot run a command.
    bool ran = !WIFEXITED(status) || (WEXITSTATUS(status) != 126 && WEXITSTATUS(status) != 127);
    if (!ran) {
        std::cerr << "evctl: the pager '" << tools::escapedText(command_.text)
                  << "' could not be run, so nothing was shown; --no-pager shows it\n";
    }
    return ran;
}

void addPagerOption(CLI::App& command, bool& noPager) {
    command.add_flag("--no-pager", noPager, "No pager, also on a terminal");
}

int runPaged(bool wanted, const std::function<int()>& run) {
    Pager pager(wanted);
    int status = run();
    return pager.finish() ? status : tools::EXIT_COULD_NOT;
}

} // namespace evctl
