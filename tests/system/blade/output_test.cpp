/** What becomes of the children's output: log files of bounded size, and the frame of a bug-check.
 */
#include "blade/bug_check.h"
#include "blade/rotating_file.h"
#include "blade_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>

#include <sys/stat.h>
#include <unistd.h>

using namespace support;
using blade::RotatingFile;

namespace {

class Rotation : public testing::Test {
  protected:
    /** The files, oldest first, as one. */
    std::string all(U32_t keep) const {
        std::string text;
        for (U32_t number = keep - 1; number > 0; --number) {
            text += readFile(path + "." + std::to_string(number));
        }
        return text + readFile(path);
    }

    TempDirectory directory;
    std::string path = directory.file("log");
};

} // namespace

TEST_F(Rotation, LosesAndTearsNoLine) {
    std::string written;
    RotatingFile file(path, 100, 1000);
    std::string pending;
    for (int i = 0; i < 500; ++i) {
        pending +=
            "line " + std::to_string(i) + std::string(static_cast<size_t>(i) % 23, '.') + "\n";
        // Pieces end anywhere.
        size_t cut = pending.size() * static_cast<size_t>(i % 5) / 4;
        file.write(std::string_view(pending).substr(0, cut));
        written += pending.substr(0, cut);
        pending.erase(0, cut);
    }
    EXPECT_EQ(all(1000), written);
    for (int number = 1; access((path + "." + std::to_string(number)).c_str(), F_OK) == 0;
         ++number) {
        std::string old = readFile(path + "." + std::to_string(number));
        EXPECT_TRUE(old.ends_with('\n'));
        // A line that has begun is finished where it began.
        EXPECT_LE(old.size(), 100U + 32U);
    }
}

TEST_F(Rotation, FileOfExactlyTheSizeIsFull) {
    RotatingFile file(path, 10, 3);
    file.write("12345678\n");
    file.write("\n");
    EXPECT_EQ(readFile(path), "12345678\n\n");
    file.write("next\n");
    EXPECT_EQ(readFile(path + ".1"), "12345678\n\n");
    EXPECT_EQ(readFile(path), "next\n");
}

TEST_F(Rotation, KeepsAsManyFilesAsItIsTold) {
    RotatingFile file(path, 4, 3);
    for (const char* line : {"a\n", "b\n", "c\n", "d\n", "e\n", "f\n", "g\n"}) {
        file.write(line);
    }
    EXPECT_EQ(readFile(path), "g\n");
    EXPECT_EQ(readFile(path + ".1"), "e\nf\n");
    EXPECT_EQ(readFile(path + ".2"), "c\nd\n");
    EXPECT_NE(access((path + ".3").c_str(), F_OK), 0);
}

TEST_F(Rotation, WithOneFileBeginsItAnew) {
    RotatingFile file(path, 4, 1);
    file.write("a\nb\nc\n");
    EXPECT_EQ(readFile(path), "c\n");
    EXPECT_NE(access((path + ".1").c_str(), F_OK), 0);
}

TEST_F(Rotation, LineLargerThanAFileHasOneOfItsOwn) {
    RotatingFile file(path, 10, 3);
    file.write("one\n");
    file.write("a line of more than");
    file.write(" ten\ntwo\n");
    EXPECT_EQ(readFile(path + ".2"), "one\n");
    EXPECT_EQ(readFile(path + ".1"), "a line of more than ten\n");
    EXPECT_EQ(readFile(path), "two\n");
}

TEST_F(Rotation, CountsWhatIsThereAlready) {
    writeFile(path, "before\n");
    RotatingFile file(path, 10, 2);
    file.write("after\n");
    EXPECT_EQ(readFile(path + ".1"), "before\n");
    EXPECT_EQ(readFile(path), "after\n");
}

TEST_F(Rotation, LinesGoToTheNameAgainAfterARename) {
    RotatingFile file(path, 1000, 3);
    file.write("one\ntwo ");
    std::filesystem::rename(path, path + "-old");
    file.write("goes on, ");
    file.followName();
    file.write("and ");
    file.write("ends\nthree\n");
    EXPECT_EQ(readFile(path + "-old"), "one\ntwo goes on, and ends\n");
    EXPECT_EQ(readFile(path), "three\n");
    std::filesystem::rename(path, path + "-old");
    file.followName();
    EXPECT_EQ(readFile(path), "") << "at once: nothing more comes into the renamed file";
    file.write("four\n");
    EXPECT_EQ(readFile(path), "four\n");
}

TEST_F(Rotation, RenamedFileGoesOnWhenItsNameIsTaken) {
    RotatingFile file(path, 1000, 3);
    std::filesystem::rename(path, path + "-old");
    directory.makeDirectory("log");
    file.followName();
    file.write("one\n");
    EXPECT_EQ(readFile(path + "-old"), "one\n");
}

TEST_F(Rotation, RunningBladeFollowsTheNamesOfItsLogs) {
    BladeUnderTest blade;
    blade.waitUntilUp();
    for (const char* log : {"log/emp.log", "log/msm.log"}) {
        std::filesystem::rename(blade.slotFile(log), blade.slotFile(log) + "-old");
    }
    ASSERT_EQ(kill(blade.process.pid(), SIGUSR1), 0);
    for (const char* log : {"log/emp.log", "log/msm.log"}) {
        waitForFile(blade.slotFile(log));
    }
    blade.stop(SIGTERM, 0);
    EXPECT_NE(readFile(blade.slotFile("log/msm.log")), "") << "its last lines";
}

TEST_F(Rotation, LeavesADeviceAlone) {
    RotatingFile file("/dev/null", 1, 3);
    file.write("a\nb\nc\n");
    struct stat status {};
    ASSERT_EQ(stat("/dev/null", &status), 0);
    EXPECT_TRUE(S_ISCHR(status.st_mode));
}

TEST_F(Rotation, BoundsTheLogOfARunningBlade) {
    BladeUnderTest blade({"--log-size", "4096", "--log-keep", "2"}, {{"STANDIN", "chatty"}});
    blade.waitUntilUp();
    std::string log = blade.slotFile("log/emp.log");
    waitForLine(log, "line 999");
    std::string text = readFile(log + ".1") + readFile(log);
    EXPECT_LE(readFile(log + ".1").size(), 4096U);
    EXPECT_LE(readFile(log).size(), 4096U);
    EXPECT_NE(access((log + ".2").c_str(), F_OK), 0);
    // The lines follow one another over the border between the files.
    std::string expected;
    for (int i = 999; expected.size() < text.size(); --i) {
        expected.insert(0, "line " + std::to_string(i) + "\n");
    }
    EXPECT_EQ(text, expected);
    blade.stop(SIGTERM, 0);
}

static std::string frameOf(const std::string& message) {
    return "Nov 22 04:46:40  ********************** Critical Error *********************\n"
           "| File:      store/append.cpp\n"
           "| Function:  empSaveEventLogMsgToLogFile\n"
           "| Line:      4711\n"
           "| Message:   " +
           message + "\n***********************************************************\n";
}

TEST(BugCheckFrame, IsFoundAmongOtherLines) {
    auto found = blade::findBugCheck("Nov 22 04:46:40  before\n" + frameOf("It is broken!") +
                                     "| Message:   of a dump\nafter\n");
    ASSERT_TRUE(found);
    EXPECT_EQ(found->function, "empSaveEventLogMsgToLogFile");
    EXPECT_EQ(found->line, "4711");
    EXPECT_EQ(found->message, "It is broken!");
}

TEST(BugCheckFrame, LastOneCounts) {
    auto found = blade::findBugCheck(frameOf("first") + frameOf("second"));
    ASSERT_TRUE(found);
    EXPECT_EQ(found->message, "second");
}

TEST(BugCheckFrame, CutOffOrMissingIsNone) {
    std::string frame = frameOf("x");
    EXPECT_FALSE(blade::findBugCheck(frame.substr(0, frame.size() - 10)));
    EXPECT_FALSE(blade::findBugCheck("no such thing\n"));
    EXPECT_FALSE(blade::findBugCheck(""));
}
