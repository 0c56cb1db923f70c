// What an event costs. Counts do not depend on the machine's load: a rise is a change of the
// program.
#include "blade.h"

#include <algorithm>
#include <cmath>
#include <csignal>
#include <gtest/gtest.h>
#include <sstream>

using namespace support;

namespace {

// The most that an event may take: what it takes today. Lower a limit when its count has fallen.
// What is not the event's: the look at the time zone.
constexpr double ONCE_A_SECOND = 0.2;
// One event in flight: the wait, the receive, the record, the dummy entry behind it while the log
// is not full yet, the copy, the lines.
constexpr double CALLS_OF_A_SINGLE_EVENT = 6.0 + ONCE_A_SECOND;
constexpr double CALLS_OF_A_SINGLE_EVENT_IN_A_FULL_LOG = 5.0 + ONCE_A_SECOND;
// Events that arrive together share the wait, the receive, the write of lines and the send; in a
// full log the record's write too.
constexpr double CALLS_OF_AN_EVENT_AMONG_MANY = 2.1 + ONCE_A_SECOND;
constexpr double CALLS_OF_AN_EVENT_AMONG_MANY_IN_A_FULL_LOG = 0.15 + ONCE_A_SECOND;
// Through the message switch, of messages that arrive together: the wait, the receive, a send for
// each 12 KiB, looks whether there is more.
constexpr double CALLS_OF_A_MESSAGE_OF_THE_SWITCH = 0.2;
// One event in flight, the log not full; with room for another release of the compiler.
constexpr double INSTRUCTIONS_OF_AN_EVENT = 10'700;

constexpr size_t DATA_SIZE = 100;
constexpr size_t COPY_SIZE = 316; // header, event header, data

/** A program with its system calls written to a file. */
std::vector<std::string> traced(std::vector<std::string> words, const std::string& trace) {
    if (runner().empty()) {
        // The tracer is the grandchild: the child is the program.
        words.insert(words.begin(), {STRACE, "-D", "-o", trace});
    } else {
        words.insert(words.begin() + 1, {"-strace", "-D", trace});
    }
    return words;
}

/** Copies that a call has sent. The last send of a life may be cut off by its end. */
size_t copiesSent(const std::string& line) {
    size_t result = line.rfind("= ");
    if (line.find("send") == std::string::npos || result == std::string::npos) {
        return 0;
    }
    size_t bytes = std::strtoul(line.c_str() + result + 2, nullptr, 10);
    return bytes % COPY_SIZE == 0 ? bytes / COPY_SIZE : 0;
}

/** An emulator has no page of the kernel's in which a program reads the clock without a call. */
bool isClockRead(const std::string& line) {
    return line.find("gettime") != std::string::npos || line.find("time(") != std::string::npos;
}

struct Calls {
    std::vector<std::string> lines;
    size_t copies = 0; ///< sent by them
};

/** The calls, but for the clock's, behind the send of copy number @p first, up to that of copy
 * number
 * @p last; none while that has not been sent. */
Calls callsBetween(const std::string& trace, size_t first, size_t last) {
    std::istringstream text(readFile(trace));
    Calls calls;
    size_t copies = 0;
    for (std::string line; copies < last && std::getline(text, line);) {
        size_t sent = copiesSent(line);
        if (copies >= first && !isClockRead(line)) {
            calls.lines.push_back(line);
            calls.copies += sent;
        }
        copies += sent;
    }
    return copies >= last ? calls : Calls();
}

/** Waits until the trace has that many copies, and gives the calls of one event. */
double callsOfAnEvent(const std::string& trace, size_t first, size_t last) {
    Calls calls;
    requireSoon([&] { return (calls = callsBetween(trace, first, last)).copies != 0; },
                "the whole trace");
    double each = static_cast<double>(calls.lines.size()) / static_cast<double>(calls.copies);
    std::ostringstream some;
    for (size_t i = 0; i < std::min<size_t>(calls.lines.size(), 12); i++) {
        some << calls.lines[i] << '\n';
    }
    std::cout << each << " system calls an event, such as\n" << some.str();
    return each;
}

class Cost : public testing::Test {
  protected:
    Cost() { message_ = eventMessage(18, Bytes(DATA_SIZE, 0x5A)); }

    /** A life that has written round the log. */
    void fillLog() {
        RunningEmp before(blade_);
        before.startQuietly();
        for (int i = 0; i < 420; i++) { // more than fit
            before.log(18, Bytes(EMP_MAX_STRUCT));
        }
        before.kill();
    }

    /** Logs events one at a time. */
    void logSingly(RunningEmp& emp, int count) const {
        for (int i = 0; i < count; i++) {
            emp.msm.send(message_);
            emp.msm.receive();
        }
    }

    /** Logs events that lie in the socket together. */
    void logTogether(RunningEmp& emp, int count) const {
        Bytes all;
        for (int i = 0; i < count; i++) {
            all.insert(all.end(), message_.begin(), message_.end());
        }
        emp.msm.send(all);
        for (int i = 0; i < count; i++) {
            emp.msm.receive();
        }
    }

    /** Instructions from the start to the end of a life with that many events. */
    double instructionsOf(int events) {
        Blade blade;
        std::string report = blade.file("counted");
        std::vector<std::string> words = blade.command();
        words.insert(words.begin(), {VALGRIND, "--tool=callgrind", "--log-file=" + report,
                                     "--callgrind-out-file=/dev/null"});
        RunningEmp emp(blade, words);
        emp.startQuietly();
        logSingly(emp, events);
        emp.process.signal(SIGTERM);
        EXPECT_EQ(emp.process.wait(), diedOf(SIGTERM));
        std::string line = waitForLine(report, "Collected :");
        return std::stod(line.substr(line.find(':') + 1));
    }

    Blade blade_;
    Bytes message_;
};

TEST_F(Cost, SystemCallsOfASingleEvent) {
    if (runner().empty() && std::string(STRACE).empty()) {
        GTEST_SKIP() << "there is no strace here";
    }
    RunningEmp emp(blade_, traced(blade_.command(), blade_.file("trace")));
    emp.startQuietly();
    logSingly(emp, 50);
    emp.kill();
    EXPECT_LE(callsOfAnEvent(blade_.file("trace"), 10, 45), CALLS_OF_A_SINGLE_EVENT);
}

TEST_F(Cost, SystemCallsOfASingleEventInAFullLog) {
    if (runner().empty() && std::string(STRACE).empty()) {
        GTEST_SKIP() << "there is no strace here";
    }
    fillLog();
    RunningEmp emp(blade_, traced(blade_.command(), blade_.file("trace")));
    emp.startQuietly();
    logSingly(emp, 50);
    emp.kill();
    EXPECT_LE(callsOfAnEvent(blade_.file("trace"), 10, 45), CALLS_OF_A_SINGLE_EVENT_IN_A_FULL_LOG);
}

TEST_F(Cost, SystemCallsOfAnEventAmongMany) {
    if (runner().empty() && std::string(STRACE).empty()) {
        GTEST_SKIP() << "there is no strace here";
    }
    RunningEmp emp(blade_, traced(blade_.command(), blade_.file("trace")));
    emp.startQuietly();
    logTogether(emp, 150);
    emp.kill();
    EXPECT_LE(callsOfAnEvent(blade_.file("trace"), 1, 100), CALLS_OF_AN_EVENT_AMONG_MANY);
}

TEST_F(Cost, SystemCallsOfAnEventAmongManyInAFullLog) {
    if (runner().empty() && std::string(STRACE).empty()) {
        GTEST_SKIP() << "there is no strace here";
    }
    fillLog();
    RunningEmp emp(blade_, traced(blade_.command(), blade_.file("trace")));
    emp.startQuietly();
    logTogether(emp, 150);
    emp.kill();
    EXPECT_LE(callsOfAnEvent(blade_.file("trace"), 1, 100),
              CALLS_OF_AN_EVENT_AMONG_MANY_IN_A_FULL_LOG);
}

/** Connections that the switch has taken. */
ptrdiff_t acceptsIn(const std::string& trace) {
    std::istringstream text(readFile(trace));
    ptrdiff_t accepts = 0;
    for (std::string line; std::getline(text, line);) {
        accepts +=
            line.find("accept") != std::string::npos && line.find("= -1") == std::string::npos;
    }
    return accepts;
}

/** The calls from the first receive that brought something up to the last send. */
Calls callsOfTheSwitch(const std::string& trace) {
    std::istringstream text(readFile(trace));
    Calls calls;
    Calls last;
    for (std::string line; std::getline(text, line);) {
        size_t result = line.rfind("= ");
        bool received = line.find("recv") != std::string::npos && result != std::string::npos &&
                        std::strtol(line.c_str() + result + 2, nullptr, 10) > 0;
        if (!calls.lines.empty() || received) {
            calls.lines.push_back(line);
            size_t sent = copiesSent(line);
            calls.copies += sent;
            last = sent != 0 ? calls : last;
        }
    }
    return last;
}

TEST_F(Cost, SystemCallsOfAMessageThroughTheSwitch) {
    if (runner().empty() && std::string(STRACE).empty()) {
        GTEST_SKIP() << "there is no strace here";
    }
    TempDirectory directory;
    std::string trace = directory.file("trace");
    Process msm(traced(commandOf("msm", {directory.path()}), trace), directory.file("msm"));
    msm.waitForOutput("listening in");
    MmsgClient sender(directory.file("startup"));
    MmsgClient receiver(directory.file("eventlog"));
    requireSoon([&] { return acceptsIn(trace) >= 2; }, "both connections");
    constexpr int MESSAGES = 150;
    Bytes all;
    for (int i = 0; i < MESSAGES; i++) {
        all.insert(all.end(), message_.begin(), message_.end());
    }
    sender.send(all);
    for (int i = 0; i < MESSAGES; i++) {
        receiver.receive();
    }
    // Before it ends: a message can be there while the send that brought it has not returned.
    requireSoon([&] { return callsOfTheSwitch(trace).copies == MESSAGES; }, "the whole trace");
    msm.signal(SIGKILL);
    EXPECT_EQ(msm.wait(), diedOf(SIGKILL));
    double each = static_cast<double>(callsOfTheSwitch(trace).lines.size()) / MESSAGES;
    std::cout << each << " system calls a message\n";
    EXPECT_LE(each, CALLS_OF_A_MESSAGE_OF_THE_SWITCH);
}

TEST_F(Cost, InstructionsOfAnEvent) {
    if (!std::string(COUNTER_REASON).empty()) {
        GTEST_SKIP() << COUNTER_REASON;
    }
    constexpr int FEW = 100;
    constexpr int MANY = 600;
    double each = (instructionsOf(MANY) - instructionsOf(FEW)) / (MANY - FEW);
    std::cout << std::lround(each) << " instructions an event\n";
    EXPECT_LE(each, INSTRUCTIONS_OF_AN_EVENT);
    EXPECT_GT(each, 1000) << "not counted";
}

} // namespace
