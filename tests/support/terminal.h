/**
 * @file
 * A program on a terminal of its own.
 */
#ifndef TEST_TERMINAL_H
#define TEST_TERMINAL_H

#include "process.h"

#include <termios.h>

namespace support {

/** A program whose standard streams are a terminal of 24 rows, which the test reads and types on.
 * It is killed and reaped by the destructor. */
class Terminal {
  public:
    Terminal(const std::vector<std::string>& command, unsigned short columns,
             const Process::Environment& extra = {});
    ~Terminal();
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    pid_t pid() const { return pid_; }

    void type(const std::string& keys) const;
    void resize(unsigned short columns) const;

    /** Waits until the program has printed @p text, and gives all that it has printed so far.
     * Throws at the deadline, and when it has ended without. */
    std::string waitFor(const std::string& text);

    /** Everything that it prints until its end. Throws at the deadline. */
    std::string wait(Ending* ending);

    /** The terminal's settings at this moment. */
    struct termios settings() const;

  private:
    bool readSome();

    int terminal_ = -1; // our end of it
    int slave_ = -1;    // kept open, so that the settings outlive the program
    pid_t pid_ = -1;
    std::string output_;
};

} // namespace support

#endif
