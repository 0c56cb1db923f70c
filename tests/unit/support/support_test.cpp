#include "ipc_key.h"
#include "mmsg_client.h"
#include "process.h"
#include "program.h"
#include "temp_directory.h"
#include "wait.h"

#include <gtest/gtest.h>

#include <csignal>

#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace support;

TEST(Process, OutputsAndExitStatusAreSeen) {
    TempDirectory directory;
    Process child({"sh", "-c", "echo out; echo err >&2; exit 3"}, directory.file("child"));
    EXPECT_EQ(child.wait(), exitedWith(3));
    EXPECT_EQ(child.output(), "out\n");
    EXPECT_EQ(child.errorOutput(), "err\n");
}

TEST(Process, EnvironmentReachesTheChild) {
    TempDirectory directory;
    Process child({"sh", "-c", "echo $BLADE_TEST"}, directory.file("child"),
                  {{"BLADE_TEST", "yes"}});
    EXPECT_EQ(child.waitForOutput("yes"), "yes");
}

TEST(Process, SignalIsTheEnding) {
    TempDirectory directory;
    Process child({"sh", "-c", "echo up; exec sleep 1000"}, directory.file("child"));
    child.waitForOutput("up");
    child.signal(SIGTERM);
    EXPECT_EQ(child.wait(), diedOf(SIGTERM));
}

TEST(Process, WaitingForALineEndsWithTheProcess) {
    TempDirectory directory;
    Process child({"sh", "-c", "echo other"}, directory.file("child"));
    EXPECT_THROW(child.waitForOutput("line"), std::runtime_error);
}

TEST(Process, DestructorKillsAndReaps) {
    TempDirectory directory;
    pid_t pid = 0;
    {
        Process child({"sleep", "1000"}, directory.file("child"));
        pid = child.pid();
        EXPECT_EQ(kill(pid, 0), 0);
    }
    EXPECT_EQ(waitpid(pid, nullptr, 0), -1);
}

TEST(Process, MissingProgramEndsWith127) {
    TempDirectory directory;
    Process child({"/nowhere/program"}, directory.file("child"));
    EXPECT_EQ(child.wait(), exitedWith(127));
}

TEST(TempDirectory, IsRemovedWithItsContent) {
    std::string path;
    {
        TempDirectory directory;
        path = directory.makeDirectory("inner");
        writeFile(path + "/file", "text");
        EXPECT_EQ(readFile(path + "/file"), "text");
    }
    EXPECT_NE(access(path.c_str(), F_OK), 0);
}

TEST(Wait, DeadlineIsAnError) {
    EXPECT_FALSE(waitUntil([] { return false; }, std::chrono::milliseconds(1)));
    EXPECT_THROW(requireSoon([] { return false; }, "nothing", std::chrono::milliseconds(1)),
                 std::runtime_error);
}

TEST(Wait, OnlyWholeLinesCount) {
    EXPECT_EQ(findLine("first\nsecond line\nthird", "second"), "second line");
    EXPECT_EQ(findLine("first\nsecond line\nthird", "third"), "");
}

TEST(IpcKey, SegmentIsRemoved) {
    int value = 0;
    {
        IpcKey key;
        value = key.value();
        EXPECT_FALSE(key.exists());
        ASSERT_GE(shmget(value, 744, IPC_CREAT | IPC_EXCL | 0600), 0);
        EXPECT_TRUE(key.exists());
    }
    EXPECT_LT(shmget(value, 0, 0), 0);
}

TEST(MmsgClient, MessagesTravelWhole) {
    TempDirectory directory;
    MmsgListener listener(directory.file("socket"));
    MmsgClient client(directory.file("socket"));
    MmsgClient peer = listener.accept();
    Bytes first = makeMmsg({.type = 1, .local = {27, 33}, .handle = 7}, Bytes(100, 0xAB));
    Bytes second = makeMmsg({.type = 2, .other = {30}});
    client.send(first);
    client.send(second);
    EXPECT_EQ(peer.receive(), first);
    EXPECT_EQ(peer.receive(), second);
    client.close();
    peer.waitForEnd();
    EXPECT_THROW(peer.receive(), std::runtime_error);
}

TEST(MmsgClient, HeaderLiesAsDeclared) {
    Bytes message = makeMmsg({.protocol = 12,
                              .type = 1,
                              .requestor = 27,
                              .cont = 0x40,
                              .dest = 5,
                              .local = {18, 33},
                              .other = {30},
                              .returnCode = 3,
                              .handle = 0x01020304},
                             {9});
    Bytes expected(65, 0);
    expected[8] = 14;
    expected[9] = 1;
    expected[11] = 65;
    expected[12] = 12;
    expected[15] = 1;
    expected[16] = 27;
    expected[17] = 0x40;
    expected[18] = 5;
    expected[21] = 0x04; // bit 18 of word 0
    expected[27] = 0x02; // bit 1 of word 1
    expected[28] = 0x40; // bit 30 of word 0
    expected[39] = 3;
    expected[40] = 1;
    expected[41] = 2;
    expected[42] = 3;
    expected[43] = 4;
    expected[64] = 9;
    EXPECT_EQ(message, expected);
}
