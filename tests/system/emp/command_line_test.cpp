#include "blade.h"
#include "dying_child.h"

#include <climits>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace support;

namespace {

/** The end of `emp` with these arguments; what it printed stays in the members. */
class CommandLine : public testing::Test {
  protected:
    Ending endOf(const std::vector<std::string>& arguments) {
        Process emp(commandOf("emp", arguments), directory_.file("emp"));
        Ending ending = emp.wait();
        output_ = emp.output();
        errors_ = emp.errorOutput();
        return ending;
    }

    void expectSilent(const std::vector<std::string>& arguments, int status) {
        EXPECT_EQ(endOf(arguments), exitedWith(status)) << arguments.at(0);
        EXPECT_EQ(output_ + errors_, "");
    }

    /** Expects that the key is taken, but that there is no block under it. */
    void expectNoBlock(const std::string& key) {
        EXPECT_EQ(endOf({key}), exitedWith(3)) << key;
        EXPECT_EQ(output_, "");
        EXPECT_EQ(errors_, "Error opening the MPU shared memory area.\n"
                           "   No such file or directory\n"
                           "emp: Unable to share parameters.\n"
                           "emp: Giving up.\n");
    }

    /** Expects that the block is found: nobody listens, so the start ends there. */
    void expectBlockFound(const std::string& key) {
        EXPECT_EQ(endOf({key}), diedOf(SIGABRT)) << key;
        expectReport(output_, "empInit", "Linux connect function fails for MSM/EMP socket!");
    }

    TempDirectory directory_;
    std::string output_;
    std::string errors_;
};

TEST_F(CommandLine, NoArgumentExitsWith1) {
    EXPECT_EQ(endOf({}), exitedWith(1));
    EXPECT_EQ(output_ + errors_, "");
}

TEST_F(CommandLine, NoProgramNameExitsWith1) {
    if (!runner().empty()) {
        GTEST_SKIP() << "an emulator always hands a program name over";
    }
    pid_t child = fork();
    if (child == 0) {
        char* none[] = {nullptr};
        execv(program("emp").c_str(), none);
        _exit(127);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
}

TEST_F(CommandLine, KeysUpTo99ExitWith2) {
    for (const char* key : {"99", "-5", "abc", "", "0x63", "0143", "99 100", "-0xFFFFFFFF",
                            "-4294967196", "-99999999999999999999"}) {
        expectSilent({key}, 2);
    }
}

TEST_F(CommandLine, KeysFrom100OnAreLookedUp) {
    // Nobody creates blocks under such small keys.
    for (const char* key : {"100", "0x64", "0144", " 100", "+100", "100junk", "0x64g"}) {
        expectNoBlock(key);
    }
}

TEST_F(CommandLine, FurtherArgumentsAreIgnored) {
    EXPECT_EQ(endOf({"100", "99"}), exitedWith(3));
}

TEST_F(CommandLine, KeyInEveryBaseFindsTheBlock) {
    Blade blade;
    char text[64];
    for (const char* format : {"%d", "0x%x", "0%o", "%djunk"}) {
        snprintf(text, sizeof(text), format, blade.key().value());
        expectBlockFound(text);
    }
}

TEST_F(CommandLine, KeysBeyondTheRangeAreTheLargestOne) {
    // 2^32 + 100 and 2^32 - 1 would be 100 and -1 if their upper bits were lost.
    for (const char* key : {"0xFFFFFFFF", "0x80000064", "4294967396", "99999999999999999999"}) {
        expectNoBlock(key);
    }
    int id = shmget(INT_MAX, MPU_PARAMS_SIZE, IPC_CREAT | IPC_EXCL | 0600);
    ASSERT_NE(id, -1) << "somebody else's segment stands under the largest key";
    void* block = shmat(id, nullptr, 0);
    Blade blade;
    memcpy(block, &blade.params(), MPU_PARAMS_SIZE);
    for (const char* key : {"2147483647", "0xFFFFFFFF", "4294967396"}) {
        expectBlockFound(key);
    }
    shmdt(block);
    shmctl(id, IPC_RMID, nullptr);
}

TEST_F(CommandLine, BlockOfAnotherVersionExitsWith3) {
    Blade blade;
    blade.params().version = 14;
    EXPECT_EQ(endOf({blade.key().text()}), exitedWith(3));
    EXPECT_EQ(output_, "");
    EXPECT_EQ(errors_, "Error with shared memory area.\n"
                       "  Expected version 15, attached to version 14.\n"
                       "emp: Unable to share parameters.\n"
                       "emp: Giving up.\n");
}

} // namespace
