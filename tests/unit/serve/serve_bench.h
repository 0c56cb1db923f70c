/**
 * @file
 * A whole life of the loop in a child process: messages come in bundles, each when the loop would
 * wait, and all that can be seen from outside is kept. Served one at a time or in batches, a life
 * must come to the same.
 */
#ifndef TESTS_UNIT_SERVE_SERVE_BENCH_H
#define TESTS_UNIT_SERVE_SERVE_BENCH_H

#include "dying_child.h"
#include "emp_fixture.h"
#include "log_image.h"

#include <optional>
#include <string>
#include <vector>

enum class Serve { SINGLY, IN_BATCHES };

/** What a life begins with, and meets. */
struct Life {
    std::vector<support::Bytes> bundles{}; ///< messages that arrive together
    std::optional<long> logTakesUpTo{};    ///< a log file that takes bytes up to this offset
    int failWriteOnce = 0;                 ///< the write to the log file that fails, counted from 1
    int logError = 5;                      ///< EIO
    std::optional<size_t> switchTakes{};   ///< bytes, then its socket is gone
    bool switchIsSlow = false;             ///< a send that does not wait finds no room
    bool archiver = false;                 ///< connected, and up to date
    int archiverTakes = 0;                 ///< bytes in its socket; 0: all
    int reconnectSeconds = 0;              ///< an archiver is configured, and no socket to be had
    bool bundlesComeSoon = false;          ///< the next one as soon as others may run
};

/** What was seen of it. */
struct Seen {
    int signal = 0;
    std::string output{};
    std::string log{};
    std::string copies{};
    std::string archived{};
    std::string state{}; ///< at an end without bug-check
    std::string
        calls{}; ///< W: write to the log file, L: of lines, S: send to the switch, N: new socket
};

class ServeTest : public support::EmpTest {
  protected:
    ServeTest();

    /** A blade with this log has started. */
    void start(const logimage::Bytes& log);

    /** A byte of the file changes while nobody looks. */
    void damage(size_t offset) { log_[offset] = 0; }

    /** Its life from there on, in a child. */
    Seen live(const Life& life, Serve how);

    /** Expects the same of both ways. @return what was seen of the one in batches */
    Seen expectSame(const Life& life);

  private:
    void putLog(const std::string& log) const;

    EmpControl_t fresh_; ///< before the start
    std::string log_;    ///< after it
};

/** An event of @p size bytes of data. */
support::Bytes event(size_t size, U8_t requestor = 18, U16_t evId = 0x1234);

/** That many of them, one behind the other. */
support::Bytes events(int count, size_t size);

#endif
