#include "altEventLog.h"
#include "blade.h"
#include "dying_child.h"
#include "emp_mesgs.h"

#include <climits>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <regex>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace support;

namespace {

/** The whole start-up notice. */
Bytes notice() {
    Bytes bytes(64);
    bytes[8] = 14;
    bytes[9] = 1;
    bytes[11] = 64;
    bytes[12] = 12;
    bytes[15] = 1;
    bytes[16] = 27;
    bytes[21] = 0x04;
    return bytes;
}

/** A record of this blade without data. */
std::string record(U32_t sequenceId) {
    EmpEvRecord_t header = {};
    header.evRdSignature = EMP_RECORD_SIGNATURE;
    header.evRdVersion = 1;
    memcpy(header.evEnclosureId, "CHASSIS-7", 9);
    memcpy(header.evBladeId, "BLADE-42", 8);
    header.evSlotId = 3;
    header.evInstanceNumber = 6;
    header.evSequenceId = sequenceId;
    header.evSource = 18;
    header.evType = 1;
    header.evRdCRCChecksum = computeCRC32(header.evEnclosureId, 152);
    return std::string(reinterpret_cast<const char*>(&header), sizeof(header));
}

std::string linkOf(pid_t pid, int descriptor) {
    char target[PATH_MAX] = {};
    std::string path = "/proc/" + std::to_string(pid) + "/fd/" + std::to_string(descriptor);
    if (readlink(path.c_str(), target, sizeof(target) - 1) < 0) {
        return "closed";
    }
    return target;
}

mode_t modeOf(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return status.st_mode & 07777U;
}

TEST(Startup, NobodyListensIsABugCheck) {
    Blade blade;
    Process emp(blade.command(), blade.file("emp"));
    EXPECT_EQ(emp.wait(), diedOf(SIGABRT));
    expectReport(emp.output(), "empInit", "Linux connect function fails for MSM/EMP socket!");
    EXPECT_EQ(errorsOf(emp), "");
    EXPECT_EQ(blade.log(), "") << "the log is opened later";
}

TEST(Startup, NoticeGoesToTheStartupProcess) {
    Blade blade;
    RunningEmp emp(blade);
    EXPECT_EQ(emp.msm.receive(), notice());
}

TEST(Startup, LinesTellTheSteps) {
    Blade blade;
    RunningEmp emp(blade);
    emp.startQuietly();
    std::string output = emp.process.output();
    size_t at = 0;
    for (const char* line :
         {"empInit(): Event Manager connect to MSM with socket [",
          "main(): Finish initializing the Event Manager internal data structures.\n",
          "empProcessEventLogFile(): ", "main(): Finish processing of Event Log File.\n",
          "main(): EMP finishes initialization and sends the message to the Startup process.\n",
          "main(): Finish processing of Alternate Event Log Files. Wait for Event Messages.\n"}) {
        size_t found = output.find(line, at);
        ASSERT_NE(found, std::string::npos) << line << output;
        at = found;
    }
    EXPECT_EQ(output.find("Event Manager starts initializing"), std::string::npos);
    std::regex first("^[JFMASOND][a-z]{2} [ 123][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2}  empInit\\(\\): ");
    EXPECT_TRUE(std::regex_search(output, first)) << output.substr(0, 100);
}

TEST(Startup, EventOfARebuiltLogComesBeforeTheNotice) {
    Blade blade;
    writeFile(blade.logPath(),
              record(0) + std::string(10, '\0') + record(5) + std::string(10, '\0') + record(9));
    RunningEmp emp(blade);
    std::vector<Bytes> before = emp.start();
    ASSERT_EQ(before.size(), 1U);
    Bytes& copy = before[0];
    ASSERT_EQ(copy.size(), 216U);
    std::fill(copy.begin() + 204, copy.begin() + 208, U8_t{0}); // the time
    Bytes header(64);
    header[8] = 14;
    header[9] = 1;
    header[11] = 216;
    header[12] = 8;
    header[15] = 1;
    header[16] = 27;
    header[20] = header[28] = 0x40;
    EXPECT_EQ(copy, joined({header,
                            textField("CHASSIS-7"),
                            textField("BLADE-42"),
                            {0, 0, 0, 3, 0, 0, 0, 6, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0},
                            {27, 2, 2, 1, 0, 4}}));
    EXPECT_EQ(readFile(blade.logPath() + ".debug").size(), 500U) << "the damaged log is kept";
    EXPECT_EQ(emp.log(18, {}), 2U);
}

/** A pipe that nobody reads until drain(). */
class HeldOutput {
  public:
    HeldOutput() {
        if (pipe(ends_) != 0) {
            throw std::runtime_error("no pipe");
        }
        fcntl(ends_[0], F_SETFD, FD_CLOEXEC);
    }
    ~HeldOutput() { close(ends_[0]); }
    HeldOutput(const HeldOutput&) = delete;
    HeldOutput& operator=(const HeldOutput&) = delete;

    std::string redirection() const { return "exec >&" + std::to_string(ends_[1]); }

    /** Whether a writer must wait by now. */
    bool isFull() const {
        int held = 0;
        return ioctl(ends_[0], FIONREAD, &held) == 0 && held >= 60'000;
    }

    /** Reads to the end of all writers. */
    std::string drain() {
        close(ends_[1]);
        std::string all;
        Bytes piece(65536);
        ssize_t got = 0;
        while ((got = read(ends_[0], piece.data(), piece.size())) > 0) {
            all.append(piece.begin(), piece.begin() + got);
        }
        return all;
    }

  private:
    int ends_[2];
};

TEST(Startup, NoticeToADeadPeerShowsItsLength) {
    Blade blade;
    constexpr U32_t EVENTS = 1000;
    {
        RunningEmp emp(blade);
        emp.start();
        for (U32_t id = 1; id <= EVENTS; id++) {
            ASSERT_EQ(emp.log(18, {}), id);
        }
        emp.kill();
    }
    // The scan of so many records prints more than is buffered, and waits for its reader: behind
    // the connection, before the notice.
    HeldOutput output;
    RunningEmp emp(blade, blade.commandAfter(output.redirection()));
    requireSoon([&] { return output.isFull(); }, "output of the scan");
    emp.msm.close();
    std::string lines = output.drain();
    EXPECT_EQ(emp.process.wait(), diedOf(SIGABRT));
    expectReport(lines, "main", "Linux send function fails, sendSize = [64] is wrong");
    EXPECT_EQ(lines.find("sends the message to the Startup process"), std::string::npos);
    EXPECT_EQ(blade.alternateFiles(), 24U);
}

/** The 460 bytes that the last bug-check tells of the control block. */
std::string controlImage(const Blade& blade) {
    for (const auto& entry : std::filesystem::directory_iterator(blade.file("n/aelfiles"))) {
        if (entry.file_size() == 160 + 460) {
            return readFile(entry.path()).substr(160);
        }
    }
    return "no image";
}

TEST(Startup, LoopBeginsWithAWaitOfOneSecond) {
    Blade blade;
    RunningEmp emp(blade);
    emp.process.waitForOutput("Wait for Event Messages.");
    emp.msm.close(); // the notice is still in it: a bug-check, whose report has the time
    std::string output =
        emp.expectBugCheck("main", "Linux recv function fails, MSG_PEEK readSize = [-1] is wrong");
    const std::string label = "empControl.selectTimeout.tv_sec";
    EXPECT_NE(output.find(label + std::string(56 - label.size(), ' ') + "= [1]\n"),
              std::string::npos);
    EXPECT_EQ(controlImage(blade).substr(0, 8), std::string("\0\0\0\1\0\0\0\0", 8));
}

TEST(Startup, LogFileIsMadeForItsOwner) {
    Blade blade;
    RunningEmp emp(blade, blade.commandAfter("umask 0"));
    emp.start();
    EXPECT_EQ(modeOf(blade.logPath()), 0700U);
}

TEST(Startup, MaskTakesRightsOfTheLogFile) {
    Blade blade;
    RunningEmp emp(blade, blade.commandAfter("umask 0177"));
    emp.start();
    EXPECT_EQ(modeOf(blade.logPath()), 0600U);
}

TEST(Startup, ClosedStandardDescriptorsAreFilled) {
    Blade blade;
    RunningEmp emp(blade, blade.commandAfter("exec <&- >&- 2>&-"));
    emp.start();
    for (int descriptor : {0, 1, 2}) {
        EXPECT_EQ(linkOf(emp.process.pid(), descriptor), "/dev/null") << descriptor;
    }
    EXPECT_EQ(emp.log(18, {1, 2, 3}), 1U);
}

TEST(Startup, ItsWaitsAreNotRoundedUp) {
    Blade blade;
    RunningEmp emp(blade);
    emp.startQuietly();
    const std::string file = "/proc/" + std::to_string(emp.process.pid()) + "/timerslack_ns";
    const std::string slack = readFile(file);
    if (slack.empty() && geteuid() != 0) {
        GTEST_SKIP() << "only root may see how another process's waits are rounded";
    }
    EXPECT_EQ(slack, "1\n");
}

TEST(Startup, ClosedStandardInputAloneIsFilled) {
    Blade blade;
    RunningEmp emp(blade, blade.commandAfter("exec <&-"));
    emp.startQuietly();
    EXPECT_EQ(linkOf(emp.process.pid(), 0), "/dev/null");
    EXPECT_NE(emp.process.output().find("connect to MSM with socket ["), std::string::npos);
    EXPECT_EQ(emp.process.output().find("connect to MSM with socket [0]"), std::string::npos);
}

TEST(Startup, IdsOfTheBlockAreTaken) {
    Blade blade;
    memset(blade.params().chassisSN, 'C', 64);
    memset(blade.params().serialStr, 'S', 64);
    blade.params().slotId = 0xFFFFFFFE;
    RunningEmp emp(blade);
    emp.start();
    emp.msm.send(eventMessage(18, {}));
    Bytes copy = emp.msm.receive();
    EXPECT_EQ(Bytes(copy.begin() + 64, copy.begin() + 196), joined({textField(std::string(63, 'C')),
                                                                    textField(std::string(63, 'S')),
                                                                    {0xFF, 0xFF, 0xFF, 0xFE}}));
}

} // namespace
