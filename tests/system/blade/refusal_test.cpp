#include "blade_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>

using namespace support;
using testing::HasSubstr;

namespace {

/** Runs a blade that must refuse to come up. @return what it says on standard error */
std::string refusal(const std::vector<std::string>& command, const std::string& base) {
    Process process(command, base);
    EXPECT_EQ(process.wait(), exitedWith(2));
    EXPECT_EQ(process.output(), "");
    return process.errorOutput();
}

class BladeRefusal : public testing::Test {
  protected:
    std::string refusalOf(const std::vector<std::string>& arguments) {
        // A later --emp would be a second one, so the stand-in is for those who name none.
        std::vector<std::string> all = arguments;
        if (std::ranges::find(all, "--emp") == all.end()) {
            all.insert(all.end(), {"--emp", standIn()});
        }
        return refusal(bladeCommand(base.path(), key.text(), all), base.file("refused"));
    }
    /** A parameter file of one's own, without --base. */
    std::string refusalOfFile(const std::string& content) {
        writeFile(base.file("own.conf"), content);
        return refusal(
            commandOf("blade", {base.file("own.conf"), "--key", key.text(), "--emp", standIn()}),
            base.file("refused"));
    }

    TempDirectory base;
    IpcKey key;
};

} // namespace

TEST_F(BladeRefusal, MissingParameterFile) {
    EXPECT_THAT(refusal(commandOf("blade", {"/nowhere.conf"}), base.file("refused")),
                HasSubstr("blade: cannot read parameter file /nowhere.conf: No such file"));
}

TEST_F(BladeRefusal, VersionOtherThan15) {
    EXPECT_THAT(refusalOf({"--set", "Version=14"}), HasSubstr("Version is 14"));
    EXPECT_FALSE(key.exists());
}

TEST_F(BladeRefusal, MissingDirectories) {
    EXPECT_THAT(refusalOfFile("Version=15\nMmsgDirectory=" + base.file("mmsg") + "\n"),
                HasSubstr("MmsgDirectory and NvramDirectory must be given"));
    EXPECT_FALSE(key.exists());
}

TEST_F(BladeRefusal, DirectoryThatIsAFile) {
    writeFile(base.file("file"), "");
    EXPECT_THAT(refusalOfFile("Version=15\nMmsgDirectory=" + base.path() +
                              "\nNvramDirectory=" + base.file("file") + "\n"),
                HasSubstr(base.file("file") + " is not a directory"));
    EXPECT_FALSE(key.exists());
}

TEST_F(BladeRefusal, MissingPrograms) {
    EXPECT_THAT(refusalOf({"--emp", "/nowhere/emp"}),
                HasSubstr("blade: cannot execute /nowhere/emp: No such file or directory"));
    EXPECT_THAT(refusalOf({"--msm", "/nowhere/msm"}), HasSubstr("cannot execute /nowhere/msm"));
    EXPECT_FALSE(key.exists());
}

TEST_F(BladeRefusal, KeysThatTheEventManagerWouldNotTake) {
    for (const char* bad : {"99", "0", "-5", "2147483648", "key", "12x"}) {
        EXPECT_THAT(refusal(commandOf("blade", {sourceFile("demo/blade.conf"), "--key", bad}),
                            base.file("refused")),
                    HasSubstr("a key is a number from 100 to 2147483647"))
            << bad;
    }
}

TEST_F(BladeRefusal, OtherBladeNeedsABase) {
    EXPECT_THAT(refusal(commandOf("blade", {sourceFile("demo/blade.conf"), "--other", "1"}),
                        base.file("refused")),
                HasSubstr("--base"));
}

TEST_F(BladeRefusal, KeyThatIsInUse) {
    BladeUnderTest up;
    up.waitUntilUp();
    EXPECT_THAT(refusal(bladeCommand(base.path(), up.key.text(), {"--emp", standIn()}),
                        base.file("refused")),
                HasSubstr("a parameter block under key " + up.key.text() + " is in use"));
    up.stop(SIGTERM, 0);
}

TEST_F(BladeRefusal, DirectoryThatIsInUse) {
    BladeUnderTest up;
    up.waitUntilUp();
    EXPECT_EQ(refusal(bladeCommand(up.base.path(), key.text(), {"--emp", standIn()}),
                      base.file("refused")),
              "blade: another msm already listens in " + up.slotFile("mmsg") + "\n");
    EXPECT_FALSE(key.exists());
    up.stop(SIGTERM, 0);
}
