#include "switch_fixture.h"

#include "endpoint_names.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>

#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using namespace support;
using testing::HasSubstr;

static bool exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

/** Runs a switch that cannot start. @return what it says on standard error */
static std::string refusalOf(const TempDirectory& logs, const std::vector<std::string>& arguments) {
    Process process(commandOf("msm", arguments), logs.file("refused"));
    EXPECT_EQ(process.wait(), exitedWith(2));
    return process.errorOutput();
}

TEST(SwitchDirectory, SocketsComeAndGoWithTheSwitch) {
    TempDirectory directory;
    RunningSwitch msm(directory.path());
    for (const char* name : ENDPOINT_SOCKETS) {
        struct stat status {};
        ASSERT_EQ(stat(directory.file(name).c_str(), &status), 0) << name;
        EXPECT_TRUE(S_ISSOCK(status.st_mode)) << name;
    }
    EXPECT_FALSE(exists(directory.file("link")));
    msm.stop(SIGTERM);
    for (const char* name : ENDPOINT_SOCKETS) {
        EXPECT_FALSE(exists(directory.file(name))) << name;
    }
}

/** Connects at once or not at all. */
static bool connectsNow(const std::string& path) {
    int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    bool connected =
        connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    close(descriptor);
    return connected;
}

/** Starts a switch under an umask of its own. */
static std::vector<std::string> commandUnder(const std::string& mask,
                                             const std::string& arguments) {
    return {"sh", "-c",
            "umask " + mask + "; exec " + runnerText() + " " + program("msm") + " " + arguments};
}

static mode_t modeOf(const std::string& path, gid_t* group = nullptr) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    if (group != nullptr) {
        *group = status.st_gid;
    }
    return status.st_mode & 07777U;
}

TEST(SwitchDirectory, SocketsAreTheOwnersAloneWhateverTheUmask) {
    for (const char* mask : {"000", "022", "077"}) {
        TempDirectory directory;
        Process msm(commandUnder(mask, directory.path() + " --link " + directory.file("none")),
                    directory.file("msm"));
        msm.waitForOutput("listening in");
        EXPECT_EQ(modeOf(directory.file("eventlog")), 0600U) << mask;
        EXPECT_EQ(modeOf(directory.file("link")), 0600U) << mask;
    }
}

TEST(SwitchDirectory, GroupMayUseTheSocketsWhenAsked) {
    TempDirectory directory;
    const struct group* own = getgrgid(getgid());
    ASSERT_NE(own, nullptr);
    Process msm(commandUnder("077", directory.path() + " --group " + own->gr_name),
                directory.file("msm"));
    msm.waitForOutput("listening in");
    gid_t group = 0;
    EXPECT_EQ(modeOf(directory.file("eventlog"), &group), 0660U);
    EXPECT_EQ(group, getgid());
}

TEST(SwitchDirectory, EmptyNamesAreRefused) {
    TempDirectory directory;
    TempDirectory logs;
    EXPECT_THAT(refusalOf(logs, {directory.path(), "--link", ""}), HasSubstr("--link"));
    EXPECT_FALSE(exists(directory.file("eventlog")));
    EXPECT_THAT(refusalOf(logs, {""}), HasSubstr("directory"));
}

TEST(SwitchDirectory, UnknownGroupLeavesNoFileBehind) {
    TempDirectory directory;
    TempDirectory logs;
    EXPECT_EQ(refusalOf(logs, {directory.path(), "--group", "no-such-group"}),
              "msm: there is no group no-such-group\n");
    EXPECT_FALSE(exists(directory.file("iscsi18p")));
}

TEST(SwitchDirectory, ReadyMeansThatEveryEndpointListens) {
    TempDirectory directory;
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    Process msm(commandOf("msm", {directory.path(), "--ready-fd", std::to_string(ready[1]),
                                  "--link", directory.file("nowhere")}),
                directory.file("msm"));
    close(ready[1]);
    char text[16];
    ASSERT_EQ(read(ready[0], text, sizeof(text)), 6);
    EXPECT_EQ(std::string(text, 6), "ready\n");
    for (const char* name : ENDPOINT_SOCKETS) {
        EXPECT_TRUE(connectsNow(directory.file(name))) << name;
    }
    EXPECT_TRUE(connectsNow(directory.file("link")));
    // The descriptor is closed: nothing of it reaches the life of the switch.
    EXPECT_EQ(read(ready[0], text, sizeof(text)), 0);
    close(ready[0]);
}

TEST(SwitchDirectory, ReadinessThatCannotBeToldIsAClearError) {
    TempDirectory directory;
    TempDirectory logs;
    EXPECT_THAT(refusalOf(logs, {directory.path(), "--ready-fd", "777"}),
                HasSubstr("cannot write to descriptor 777: Bad file descriptor"));
    EXPECT_FALSE(exists(directory.file("eventlog")));
}

TEST(SwitchDirectory, StaleSocketsAreReplaced) {
    TempDirectory directory;
    {
        RunningSwitch killed(directory.path());
        killed.process().signal(SIGKILL);
        EXPECT_EQ(killed.process().wait(), diedOf(SIGKILL));
    }
    ASSERT_TRUE(exists(directory.file("eventlog")));
    RunningSwitch msm(directory.path());
    MmsgClient client = msm.connect("eventlog");
    client.send(makeMmsg({.local = {27}}));
    EXPECT_EQ(client.receive().size(), 64U);
}

TEST(SwitchDirectory, SecondSwitchIsRefusedAndTheFirstGoesOn) {
    TempDirectory directory;
    TempDirectory logs;
    RunningSwitch msm(directory.path());
    EXPECT_EQ(refusalOf(logs, {directory.path()}),
              "msm: another msm already listens in " + directory.path() + "\n");
    MmsgClient client = msm.connect("eventlog");
    client.send(makeMmsg({.local = {27}}));
    EXPECT_EQ(client.receive().size(), 64U);
}

TEST(SwitchDirectory, SocketOfAnotherProgramIsLeftAlone) {
    TempDirectory directory;
    TempDirectory logs;
    MmsgListener other(directory.file("eventlog"));
    EXPECT_EQ(refusalOf(logs, {directory.path()}),
              "msm: somebody already listens on " + directory.file("eventlog") + "\n");
    EXPECT_TRUE(exists(directory.file("eventlog")));
    EXPECT_FALSE(exists(directory.file("iscsi18p")));
}

TEST(SwitchDirectory, FileInTheWayIsNotRemoved) {
    TempDirectory directory;
    TempDirectory logs;
    writeFile(directory.file("startup"), "precious");
    EXPECT_EQ(refusalOf(logs, {directory.path()}),
              "msm: " + directory.file("startup") + " is in the way: it is not a socket\n");
    EXPECT_EQ(readFile(directory.file("startup")), "precious");
    EXPECT_FALSE(exists(directory.file("iscsi18p")));
}

TEST(SwitchDirectory, MissingDirectoryIsAClearError) {
    TempDirectory logs;
    EXPECT_THAT(
        refusalOf(logs, {logs.file("nowhere")}),
        HasSubstr("cannot open directory " + logs.file("nowhere") + ": No such file or directory"));
}

TEST(SwitchDirectory, PathsOf107CharactersFitAnd108DoNot) {
    TempDirectory top;
    // The longest name is "battery_manager": 15 characters behind a slash.
    std::string fitting = top.makeDirectory(std::string(107 - 16 - top.path().size() - 1, 'd'));
    std::string tooLong = fitting + "d";
    ASSERT_EQ(mkdir(tooLong.c_str(), 0700), 0);
    {
        RunningSwitch msm(fitting);
        MmsgClient client = msm.connect("battery_manager");
        client.send(makeMmsg({.local = {32}}));
        EXPECT_EQ(client.receive().size(), 64U);
    }
    EXPECT_EQ(refusalOf(top, {tooLong}), "msm: socket path of 108 characters, more than 107: " +
                                             tooLong + "/battery_manager\n");
}

TEST(SwitchDirectory, LinkToItselfIsRefused) {
    TempDirectory directory;
    TempDirectory logs;
    EXPECT_THAT(refusalOf(logs, {directory.path(), "--link", directory.path() + "/./link"}),
                HasSubstr("cannot link to itself"));
}
