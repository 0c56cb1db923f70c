#include "blade/directories.h"
#include "blade_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace support;
using testing::HasSubstr;

namespace {

/** A blade whose base somebody else has prepared. */
class PreparedBase : public testing::Test {
  protected:
    PreparedBase() {
        top.makeDirectory("precious");
        writeFile(top.file("precious/file"), "content");
        top.makeDirectory("base");
    }

    /** Runs the blade, which must refuse. @return what it says on standard error */
    std::string refusal(const std::string& name = "base") { return refusalWith({}, name); }

    std::string refusalWith(std::vector<std::string> arguments, const std::string& name = "base") {
        arguments.insert(arguments.end(), {"--emp", standIn()});
        Process process(bladeCommand(top.file(name), key.text(), arguments), top.file("refused"));
        EXPECT_EQ(process.wait(), exitedWith(2));
        EXPECT_FALSE(key.exists());
        EXPECT_EQ(readFile(top.file("precious/file")), "content");
        return process.errorOutput();
    }

    void makeTree(const std::string& path) const {
        for (size_t end = path.find('/'); end != std::string::npos; end = path.find('/', end + 1)) {
            mkdir(top.file(path.substr(0, end)).c_str(), 0700);
        }
        mkdir(top.file(path).c_str(), 0700);
    }

    void linkTo(const std::string& target, const std::string& name) const {
        ASSERT_EQ(symlink(top.file(target).c_str(), top.file(name).c_str()), 0);
    }

    TempDirectory top;
    IpcKey key;
};

mode_t modeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777U;
}

} // namespace

TEST_F(PreparedBase, ThatIsALinkIsRefused) {
    linkTo("precious", "link");
    EXPECT_THAT(refusal("link"), HasSubstr(top.file("link") + " is a link"));
    EXPECT_NE(access(top.file("precious/slot0").c_str(), F_OK), 0);
}

TEST_F(PreparedBase, IsLeftAsItWasByAStartThatIsRefused) {
    makeTree("base/slot0");
    EXPECT_THAT(refusalWith({"--msm-log", top.file("none/msm.log")}),
                HasSubstr("cannot write " + top.file("none/msm.log")));
    EXPECT_TRUE(std::filesystem::is_empty(top.file("base/slot0")));
    EXPECT_EQ(access(top.file("base/slot0").c_str(), F_OK), 0);
}

TEST_F(PreparedBase, KeepsWhatIsInItWhenAStartIsRefused) {
    makeTree("base/slot0/log");
    writeFile(top.file("base/slot0/log/emp.log"), "");
    refusalWith({"--msm-log", top.file("none/msm.log")});
    EXPECT_EQ(access(top.file("base/slot0/log/emp.log").c_str(), F_OK), 0);
}

TEST_F(PreparedBase, ThatOthersMayWriteToIsRefused) {
    ASSERT_EQ(chmod(top.file("base").c_str(), 0770), 0);
    EXPECT_THAT(refusal(), HasSubstr(top.file("base") + " is writable by others"));
    ASSERT_EQ(chmod(top.file("base").c_str(), 0702), 0);
    EXPECT_THAT(refusal(), HasSubstr(top.file("base") + " is writable by others"));
}

TEST_F(PreparedBase, ThatBelongsToSomebodyElseIsRefused) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can give a directory away";
    }
    ASSERT_EQ(chown(top.file("base").c_str(), 12345, 12345), 0);
    EXPECT_THAT(refusal(), HasSubstr(top.file("base") + " belongs to another user (uid 12345)"));
}

TEST_F(PreparedBase, BelowADirectoryOfSomebodyElseIsRefused) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can give a directory away";
    }
    ASSERT_EQ(chown(top.path().c_str(), 12345, 12345), 0);
    EXPECT_THAT(refusal(), HasSubstr(top.path() + " belongs to another user (uid 12345), who"));
}

TEST_F(PreparedBase, BelowADirectoryThatEverybodyMayWriteToIsRefused) {
    ASSERT_EQ(chmod(top.path().c_str(), 0777), 0);
    EXPECT_THAT(refusal(), HasSubstr(top.path() + " is writable by everybody"));
    ASSERT_EQ(chmod(top.path().c_str(), 0700), 0);
}

TEST_F(PreparedBase, WithALinkForADirectoryInItIsRefused) {
    makeTree("base/slot0");
    linkTo("precious", "base/slot0/nvram");
    EXPECT_THAT(refusal(), HasSubstr(top.file("base/slot0/nvram") + " is a link"));
}

TEST_F(PreparedBase, WithALinkForTheAlternateEventFilesIsRefused) {
    makeTree("base/slot0/nvram");
    linkTo("precious", "base/slot0/nvram/aelfiles");
    EXPECT_THAT(refusal(), HasSubstr(top.file("base/slot0/nvram/aelfiles") + " is a link"));
}

TEST_F(PreparedBase, WithALinkForTheEventLogIsRefused) {
    makeTree("base/slot0/nvram");
    linkTo("precious/file", "base/slot0/nvram/kelta_eventlog");
    EXPECT_THAT(refusal(),
                HasSubstr(top.file("base/slot0/nvram/kelta_eventlog") + " is not a regular file"));
}

TEST_F(PreparedBase, WithALinkForALogIsRefused) {
    makeTree("base/slot0/log");
    linkTo("precious/file", "base/slot0/log/emp.log");
    EXPECT_THAT(refusal(),
                HasSubstr(top.file("base/slot0/log/emp.log") + " is not a regular file"));
}

TEST_F(PreparedBase, BehindALinkOfOnesOwnIsUsedByItsTrueName) {
    linkTo("base", "link");
    Process blade(bladeCommand(top.file("link/deep"), key.text(), {"--emp", standIn()}),
                  top.file("blade"));
    EXPECT_THAT(blade.waitForOutput("up: "),
                HasSubstr("messages in " + top.file("base/deep/slot0/mmsg") + ", nvram in " +
                          top.file("base/deep/slot0/nvram")));
}

TEST_F(PreparedBase, IsOpenedForAGroupAsFarAsItsSockets) {
    const struct group* own = getgrgid(getgid());
    ASSERT_NE(own, nullptr);
    Process blade(
        bladeCommand(top.file("base"), key.text(), {"--emp", standIn(), "--group", own->gr_name}),
        top.file("blade"));
    blade.waitForOutput("up: ");
    EXPECT_EQ(modeOf(top.file("base")), 0710U);
    EXPECT_EQ(modeOf(top.file("base/slot0/mmsg")), 0710U);
    EXPECT_EQ(modeOf(top.file("base/slot0/mmsg/eventlog")), 0660U);
    EXPECT_EQ(modeOf(top.file("base/slot0/nvram")), 0700U);
    EXPECT_EQ(modeOf(top.file("base/slot0/log")), 0700U);
}

TEST(DefaultBase, IsNeverWhereOthersMayWrite) {
    setenv("XDG_RUNTIME_DIR", "/run/user/1000", 1);
    EXPECT_EQ(blade::defaultBase(), geteuid() == 0 ? "/run/blade" : "/run/user/1000/blade");
    unsetenv("XDG_RUNTIME_DIR");
    if (geteuid() != 0) {
        EXPECT_THROW(blade::defaultBase(), std::exception);
    }
}
