/** Bug-checks of the real event manager: the files that they leave, and the start behind them. */
#include "ael_file.h"
#include "blade.h"

#include "dying_child.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace support;
using testing::HasSubstr;

namespace {

/** The alternate event log files in the order of their event ids. */
std::vector<std::string> alternateFilesOf(const Blade& blade) {
    std::vector<std::string> all;
    for (const auto& entry : std::filesystem::directory_iterator(blade.file("n/aelfiles"))) {
        all.push_back(readFile(entry.path()));
    }
    std::ranges::sort(all, {}, [](const std::string& file) { return file.substr(158, 2); });
    return all;
}

void expectTwentyFourFiles(const Blade& blade) {
    std::vector<std::string> all = alternateFilesOf(blade);
    ASSERT_EQ(all.size(), 24U);
    for (uint32_t i = 0; i < 24; i++) {
        uint32_t length = i == 0 ? 196 : i == 1 ? 460 : i < 4 ? 256 : 2000;
        EXPECT_EQ(all[i].size(), 160 + length) << i;
        EXPECT_EQ(all[i].substr(0, 4), std::string("\xB6\x8F\x01\x00", 4)) << i;
        EXPECT_EQ(all[i].substr(4, 4), bigEndian(bitwiseChecksum(all[i].substr(8)), 4)) << i;
        EXPECT_EQ(all[i].substr(152, 8),
                  bigEndian(length, 2) + std::string("\x1B\x03\x02\x01", 4) + bigEndian(11 + i, 2));
    }
}

/** A program of this build, run to its end. @return its output */
std::string outputOf(const Blade& blade, const std::vector<std::string>& arguments, int status) {
    Process evctl(commandOf("evctl", arguments), blade.file("evctl"));
    EXPECT_EQ(evctl.wait(), exitedWith(status)) << evctl.errorOutput();
    return evctl.output();
}

void dieOfUnreadData(Blade& blade) {
    RunningEmp emp(blade);
    emp.process.waitForOutput("Wait for Event Messages.");
    emp.msm.close(); // the start-up notice is still in it
    emp.expectBugCheck("main", READ_FAILS);
}

/** Plain, which others unpack and check, and compressed, which is made and read on the desk. */
void expectBundlesWith(const std::string& report, const Blade& blade) {
    const std::string plain = blade.file("help.tar");
    outputOf(blade, {"support", "--nvram", blade.file("n"), "-o", plain}, 0);
    Process unpacked({"sh", "-c",
                      "cd '" + blade.file("") +
                          "' && tar -xf help.tar && cd support && sha256sum -c --quiet SHA256SUMS"},
                     blade.file("unpacked"));
    EXPECT_EQ(unpacked.wait(), exitedWith(0)) << unpacked.errorOutput();
    EXPECT_EQ(readFile(blade.file("support/crashes.txt")), report.substr(report.find('\n') + 1));
    EXPECT_EQ(readFile(blade.file("support/kelta_eventlog")), readFile(blade.logPath()));

    const std::string compressed = blade.file("help.tar.gz");
    Process support(commandOf("evctl", {"support", "--nvram", blade.file("n"), "-o", compressed}),
                    blade.file("evctl"));
    if (runner().empty()) {
        EXPECT_EQ(support.wait(), exitedWith(0));
        for (const std::string& bundle : {plain, compressed}) {
            EXPECT_EQ(outputOf(blade, {"file", "crash", bundle}, 1), report);
        }
    } else {
        EXPECT_EQ(support.wait(), exitedWith(2));
        EXPECT_THAT(support.errorOutput(),
                    HasSubstr("built without what compresses; name it .tar"));
        EXPECT_FALSE(std::filesystem::exists(compressed));
    }
}

/** A pipe that takes a program's output, and is full from the beginning. */
class FullPipe {
  public:
    explicit FullPipe(const std::string& path) {
        EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
        descriptor_ = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        std::string bytes(4096, '\n');
        while (write(descriptor_, bytes.data(), bytes.size()) > 0) {
        }
        EXPECT_EQ(errno, EAGAIN);
    }
    ~FullPipe() { close(descriptor_); }
    FullPipe(const FullPipe&) = delete;
    FullPipe& operator=(const FullPipe&) = delete;

    /** Takes what comes until @p process has ended. */
    std::string drain(Process& process) {
        std::string output;
        requireSoon(
            [&] {
                bool ended = process.poll().has_value();
                char piece[65536];
                ssize_t count = 0;
                while ((count = read(descriptor_, piece, sizeof(piece))) > 0) {
                    output.append(piece, static_cast<size_t>(count));
                }
                return ended;
            },
            "the end of the program");
        return output;
    }

  private:
    int descriptor_;
};

TEST(BugCheck, LeavesFilesThatTheNextStartTakesAndTheReportShows) {
    Blade blade;
    dieOfUnreadData(blade);
    expectTwentyFourFiles(blade);
    std::string listed = outputOf(blade, {"ael", "list", "--key", blade.key().text()}, 0);
    EXPECT_EQ(std::count(listed.begin(), listed.end(), '\n'), 24);
    std::string waiting;
    for (const std::string& place : {blade.logPath(), blade.file("n")}) {
        waiting = outputOf(blade, {"file", "crash", place}, 1);
        EXPECT_EQ(waiting.find("bug-check 1 of 1, newest first\ntime          20"), 0U);
        EXPECT_THAT(waiting, HasSubstr("\nmessage       " + std::string(READ_FAILS).substr(0, 64) +
                                       "\nfunction      main\nline          "));
        EXPECT_THAT(waiting, HasSubstr("\nrecords       24 of 24, which wait for the event "
                                       "manager's next start\n"));
    }
    expectBundlesWith(waiting, blade);

    RunningEmp emp(blade);
    emp.start();
    emp.process.waitForOutput("Wait for Event Messages.");
    EXPECT_EQ(blade.alternateFiles(), 0U);
    EXPECT_EQ(outputOf(blade, {"file", "crash", blade.file("n"), "--all"}, 1),
              outputOf(blade, {"file", "crash", blade.logPath()}, 1));
    std::string report = outputOf(blade, {"file", "crash", blade.logPath()}, 1);
    EXPECT_EQ(report.find("bug-check 1 of 1, newest first\ntime          20"), 0U);
    EXPECT_THAT(report, HasSubstr("\nmessage       " + std::string(READ_FAILS).substr(0, 64) +
                                  "\nfunction      main\nline          "));
    EXPECT_THAT(report, HasSubstr("\nfile          empmain\n"
                                  "meaning       reading from the message switch failed, or the "
                                  "switch went away with messages unread\n"
                                  "what to do    mend the switch; restart both\n"
                                  "enclosure     CHASSIS-7\nblade         BLADE-42\n"
                                  "slot          3\n"
                                  "records       24 of 24, sequence ids 1 to 24\n"));
    EXPECT_THAT(report, HasSubstr("sun_path                                    " +
                                  blade.mmsgPath() + "\n"));
    EXPECT_THAT(report, HasSubstr("\nindex\n  1 valid of 10000 known entries of 10000\n"
                                  "  slots 0 to 0, offsets 0 to 0\n"));
    emp.kill();
}

TEST(BugCheck, TwoOfThemAreTwoReports) {
    Blade blade;
    dieOfUnreadData(blade);
    dieOfUnreadData(blade); // the events of the first are in the log, their copies unread
    EXPECT_EQ(blade.alternateFiles(), 24U);
    std::string before = outputOf(blade, {"file", "crash", blade.file("n"), "--all"}, 1);
    size_t older = before.find("\nbug-check 2 of 2");
    ASSERT_NE(older, std::string::npos) << before.substr(0, 400);
    EXPECT_THAT(before.substr(0, older), HasSubstr("24 of 24, which wait for"));
    EXPECT_THAT(before.substr(older), HasSubstr("24 of 24, sequence ids 1 to 24\n"));
    RunningEmp emp(blade);
    emp.start();
    emp.process.waitForOutput("Wait for Event Messages.");
    std::string report = outputOf(blade, {"file", "crash", blade.logPath(), "--all"}, 1);
    size_t second = report.find("\nbug-check 2 of 2");
    ASSERT_NE(second, std::string::npos) << report.substr(0, 400);
    EXPECT_THAT(report.substr(0, second), HasSubstr("24 of 24, sequence ids 25 to 48\n"));
    EXPECT_THAT(report.substr(second), HasSubstr("24 of 24, sequence ids 1 to 24\n"));
    emp.kill();
}

TEST(BugCheck, StartupNoticeThatCannotBeSent) {
    Blade blade;
    {
        RunningEmp emp(blade);
        emp.startQuietly();
        // The next start has three lines to say of each: more than its buffer holds.
        for (int i = 0; i < 1000; i++) {
            emp.log(18, {});
        }
        emp.kill();
    }
    // The start stands still with its output, behind the connection and before the notice.
    FullPipe pipe(blade.file("pipe"));
    blade.listen();
    Process emp(blade.commandAfter("exec >'" + blade.file("pipe") + "'"), blade.file("emp"));
    blade.accept().close();
    std::string output = pipe.drain(emp);
    EXPECT_EQ(emp.wait(), diedOf(SIGABRT));
    expectReport(output, "main", "Linux send function fails, sendSize = [64] is wrong");
    expectTwentyFourFiles(blade);
}

} // namespace
