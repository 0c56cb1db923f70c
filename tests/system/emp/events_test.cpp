#include "altEventLog.h"
#include "blade.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace support;

namespace {

/** Standard output as a socket that keeps the borders of writes. */
class WritesSeen {
  public:
    WritesSeen() {
        if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends_) != 0) {
            throw std::runtime_error("no socket pair");
        }
        fcntl(ends_[0], F_SETFD, FD_CLOEXEC);
    }
    ~WritesSeen() {
        close(ends_[0]);
        close(ends_[1]);
    }
    WritesSeen(const WritesSeen&) = delete;
    WritesSeen& operator=(const WritesSeen&) = delete;

    std::string redirection() const { return "exec >&" + std::to_string(ends_[1]); }

    std::string next() {
        Bytes space(200'000);
        ssize_t got = recv(ends_[0], space.data(), space.size(), 0);
        return std::string(space.begin(), space.begin() + std::max<ssize_t>(got, 0));
    }

    bool nothingLeft() const {
        char byte;
        return recv(ends_[0], &byte, 1, MSG_PEEK | MSG_DONTWAIT) == -1 && errno == EAGAIN;
    }

  private:
    int ends_[2];
};

TEST(Events, StoredBytesAreTheCopysBehindSignatureAndChecksum) {
    Blade blade;
    RunningEmp emp(blade);
    emp.start();
    emp.msm.send(eventMessage(18, {'h', 'e', 'l', 'l', 'o'}));
    Bytes copy = emp.msm.receive();
    Bytes stored = blade.logged(200, 165);
    EXPECT_EQ(Bytes(stored.begin(), stored.begin() + 4), (Bytes{0xB6, 0x8F, 1, 0}));
    EXPECT_EQ(number32(stored, 4), computeCRC32(&stored[8], 157));
    EXPECT_EQ(Bytes(stored.begin() + 8, stored.end()), Bytes(copy.begin() + 64, copy.end()));
    EXPECT_EQ(Bytes(copy.begin() + 216, copy.end()), (Bytes{'h', 'e', 'l', 'l', 'o'}));
}

TEST(Events, TimeIsThatOfTheIntake) {
    Blade blade;
    RunningEmp emp(blade);
    emp.start();
    time_t before = time(nullptr);
    emp.msm.send(eventMessage(18, {}));
    U32_t stamp = number32(emp.msm.receive(), 204);
    EXPECT_GE(stamp, static_cast<U32_t>(before));
    EXPECT_LE(stamp, static_cast<U32_t>(time(nullptr)));
}

TEST(Events, SeveralInOneWriteAreServedInOrder) {
    Blade blade;
    RunningEmp emp(blade);
    emp.start();
    emp.msm.send(joined({eventMessage(1, {1}), eventMessage(2, Bytes(3848, 2)), bareMessage(4),
                         eventMessage(3, {3})}));
    for (int i = 1; i <= 3; i++) {
        Bytes copy = emp.msm.receive();
        EXPECT_EQ(number32(copy, 200), static_cast<U32_t>(i));
        EXPECT_EQ(copy.at(210), i) << "evSource";
        EXPECT_EQ(copy.at(216), i);
    }
}

TEST(Events, RejectedOnesGetNoIdAndNoAnswer) {
    Blade blade;
    RunningEmp emp(blade);
    emp.start();
    Bytes shortOne = makeMmsg({.type = 1, .requestor = 18, .local = {27}}, Bytes(151));
    emp.msm.send(joined({eventMessage(35, {}), shortOne, bareMessage(6), bareMessage(8)}));
    EXPECT_EQ(emp.log(34, {}), 1U) << "and its copy is the first message";
    emp.process.waitForOutput("EMP completes Event Log Message processing.");
    for (const char* line : {"empRcvEventLogMsg(): Invalid MMSG requestor = [35]!!!\n",
                             "empRcvEventLogMsg(): MMSG mmsh_length [215] is out of range\n",
                             "EMP shall not receive Get Event Archiver Message with MMSG format.\n",
                             "empProcEventMmsgMsg(): EMP receives unknown Msg Type.\n"}) {
        EXPECT_NE(emp.process.output().find(line), std::string::npos) << line;
    }
}

TEST(Events, LinesOfMessagesThatWaitTogetherComeInOneWrite) {
    Blade blade;
    WritesSeen standardOutput;
    RunningEmp emp(blade, blade.commandAfter(standardOutput.redirection()));
    emp.start();
    EXPECT_NE(standardOutput.next().find("Wait for Event Messages.\n"), std::string::npos)
        << "nothing was waiting before the connection, so all of the start-up is one write";
    emp.msm.send(joined({eventMessage(18, {1}), bareMessage(4)}));
    emp.msm.receive();
    std::string lines = standardOutput.next();
    size_t at = 0;
    for (const char* line :
         {"main(): The socket to MSM is selected.\n",
          "empProcEventMmsgMsg(): Receive a MMSG to the Event Manager\n",
          "empRcvEventLogMsg(): Tag Event with new Sequence ID [1]\n",
          "empSaveEventLogMsgToLogFile(): new empWrite = [361].\n",
          "empRcvEventLogMsg(): Call empSendEventLogMsgToSmi() to send the new Event to SMI.\n",
          "< This is an Event LOG Message\n", "evStruct                 = 0X\n01\n",
          "EMP completes Event Log Message processing.\n",
          "main(): The socket to MSM is selected.\n",
          "EMP does not support Get Event Archiver Message.\n"}) {
        size_t found = lines.find(line, at);
        ASSERT_NE(found, std::string::npos) << line << lines;
        at = found;
    }
    EXPECT_EQ(lines.substr(lines.size() - 1), "\n");
}

TEST(Events, LinesOfAMessageComeInOneWriteBeforeTheNextIsWaitedFor) {
    Blade blade;
    WritesSeen standardOutput;
    RunningEmp emp(blade, blade.commandAfter(standardOutput.redirection()));
    emp.start();
    standardOutput.next();
    for (U32_t id = 1; id <= 3; id++) {
        EXPECT_EQ(emp.log(18, {}), id);
        std::string lines = standardOutput.next();
        EXPECT_NE(lines.find("Sequence ID [" + std::to_string(id) + "]\n"), std::string::npos);
        EXPECT_EQ(lines.substr(lines.size() - 44), "EMP completes Event Log Message processing.\n");
    }
}

TEST(Events, LongStartUpIsOneWriteToo) {
    Blade blade;
    {
        RunningEmp emp(blade);
        emp.start();
        for (U32_t id = 1; id <= 60; id++) {
            ASSERT_EQ(emp.log(18, {}), id);
        }
        emp.kill();
    }
    WritesSeen standardOutput;
    RunningEmp emp(blade, blade.commandAfter(standardOutput.redirection()));
    emp.start();
    std::string lines = standardOutput.next();
    EXPECT_GT(lines.size(), 10'000U);
    EXPECT_NE(lines.find("empInit(): Event Manager connect to MSM"), std::string::npos);
    EXPECT_NE(lines.find("Wait for Event Messages.\n"), std::string::npos);
}

TEST(Events, IdlePassesPrintNothing) {
    Blade blade;
    WritesSeen standardOutput;
    RunningEmp emp(blade, blade.commandAfter(standardOutput.redirection()));
    emp.start();
    standardOutput.next();
    // More than one time-out of select; nothing else is waited for than its passing.
    EXPECT_FALSE(
        waitUntil([&] { return !standardOutput.nothingLeft(); }, std::chrono::milliseconds(2500)));
    EXPECT_EQ(emp.log(18, {}), 1U);
}

} // namespace
