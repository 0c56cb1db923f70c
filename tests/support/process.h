/**
 * @file
 * A child process of a test, always reaped.
 */
#ifndef TEST_PROCESS_H
#define TEST_PROCESS_H

#include "wait.h"

#include <optional>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace support {

/** How a process ended. */
struct Ending {
    bool exited = false; ///< true: by exit with @p status; false: by @p signal
    int status = 0;      ///< exit status
    int signal = 0;      ///< number of the signal

    bool operator==(const Ending&) const = default;
};

/** @return the ending of a process that exited with @p status */
constexpr Ending exitedWith(int status) {
    return {true, status, 0};
}

/** @return the ending of a process that died of @p signal */
constexpr Ending diedOf(int signal) {
    return {false, 0, signal};
}

/**
 * A running program. Its standard output and error go to the files <base>.out and <base>.err, its
 * standard input is empty. It does not outlive the test, even when that is killed: the destructor
 * kills and reaps it.
 */
class Process {
  public:
    using Environment = std::vector<std::pair<std::string, std::string>>;

    /**
     * Starts @p command (see commandOf()); its first word is searched along PATH.
     * @param base  path of the output files without extension
     * @param extra environment variables on top of the test's own
     */
    Process(const std::vector<std::string>& command, std::string base,
            const Environment& extra = {});
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t pid() const { return pid_; }

    /** Sends a signal, unless the process has ended and was waited for. */
    void signal(int number);

    /** @return the ending, if the process has ended by now */
    std::optional<Ending> poll();

    /** Waits for the end. Throws at the deadline, with the output so far. */
    Ending wait(std::chrono::milliseconds deadline = DEADLINE);

    /** Waits for a line with @p text. @return it; throws at the deadline, or when the process has
     * ended without it, with the output so far. */
    std::string waitForOutput(const std::string& text);
    std::string waitForError(const std::string& text); ///< the same on standard error

    std::string output() const;      ///< standard output so far
    std::string errorOutput() const; ///< standard error so far

  private:
    std::string waitForLineOf(const std::string& path, const std::string& text);
    [[noreturn]] void fail(const std::string& what) const;

    pid_t pid_ = -1;
    std::string base_;
    std::optional<Ending> ending_;
};

/** Prints an ending into failing assertions. */
void PrintTo(const Ending& ending, std::ostream* stream);

} // namespace support

#endif
