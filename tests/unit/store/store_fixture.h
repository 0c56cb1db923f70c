/**
 * @file
 * A blade with nothing but a log file: temporary directory, parameter block, control block as after
 * the reset, and a peer that swallows the copies for the management interface.
 */
#ifndef TESTS_UNIT_STORE_STORE_FIXTURE_H
#define TESTS_UNIT_STORE_STORE_FIXTURE_H

#include "hooks.h"
#include "log_image.h"
#include "state/control.h"
#include "store/append.h"
#include "store/find.h"
#include "store/log_file.h"
#include "store/record.h"
#include "store/scan.h"
#include "store/window.h"

#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

/** How a child process ended. */
struct ChildEnd {
    bool aborted = false;   ///< by SIGABRT
    int exitStatus = -1;    ///< of a normal end
    std::string output{};   ///< standard output, time stamps removed
    std::string message{};  ///< of the bug-check box; empty without one
    std::string function{}; ///< of the bug-check box
};

/** The positions and counters that the scan and the append keep. */
struct LogState {
    uint32_t write;
    uint32_t start;
    uint32_t startId;
    uint32_t nextId;
    int wrapOver; ///< 1 FALSE, 2 TRUE
    int foundGap;
    uint32_t inFile;
    uint32_t added;
    uint32_t deleted;
    uint32_t instance;
    bool operator==(const LogState&) const = default;
};
std::ostream& operator<<(std::ostream& out, const LogState& state);

class StoreTest : public testing::Test {
  protected:
    static constexpr uint32_t END_OF_FILE = 1'600'000;
    static constexpr int WRAP_FALSE = 1;
    static constexpr int WRAP_TRUE = 2;

    StoreTest();
    ~StoreTest() override;
    StoreTest(const StoreTest&) = delete;
    StoreTest& operator=(const StoreTest&) = delete;

    /** The state of a process that has just started: closes the log, resets everything. */
    void restart();
    void putImage(const logimage::Bytes& bytes);
    void putImage(const logimage::Image& image) { putImage(image.bytes); }
    logimage::Bytes readLog() const;
    uint32_t logSize() const { return static_cast<uint32_t>(readLog().size()); }

    /** restart() with this image and the scan. */
    EMP_SCAN_OUTCOME_e scanImage(const logimage::Image& image);
    EMP_SCAN_OUTCOME_e scanImage(const logimage::Bytes& bytes);

    /** Stores an event as the intake does: identity, next id, time, then the append. */
    void append(size_t size, uint8_t source = 17, uint16_t evId = 7);
    void appendBody(const logimage::Bytes& body, uint8_t source = 17, uint16_t evId = 7);

    /** Runs @p action in a child with its output caught. */
    ChildEnd inChild(const std::function<void()>& action) const;
    /** Runs @p action here; its output without time stamps. */
    std::string outputOf(const std::function<void()>& action);
    /** A child must end in the bug-check @p message of @p function. */
    ChildEnd expectBugCheck(const std::function<void()>& action, const std::string& message,
                            const std::string& function) const;

    static LogState state();
    static uint32_t validSlots();
    static bool indexed(uint32_t id) { return eventEntryDatabase[id % 10'000].evFlag == 1; }
    static uint32_t offsetOf(uint32_t id) { return eventEntryDatabase[id % 10'000].evOffset; }
    static int64_t position();

    std::string directory;
    std::string logPath;
    std::string debugPath;
    std::string outputBeforeBugCheck; ///< of the last outputOf() that ended in a thrown bug-check
    int msmPeer = -1;                 ///< other end of socketFdMSM

  private:
    static MPU_PARAMS_t parameters;
};

/** Removes the time stamps of debug lines. */
std::string withoutStamps(const std::string& output);

#endif
