#include "blade_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>

#include <sys/stat.h>
#include <unistd.h>

using namespace support;
using testing::HasSubstr;

TEST(BladeBringUp, UpMeansThatTheEventManagerIsInitialised) {
    BladeUnderTest blade;
    std::string up = blade.waitUntilUp();
    EXPECT_EQ(up, "blade: up: slot 0, key " + blade.key.text() + ", messages in " +
                      blade.slotFile("mmsg") + ", nvram in " + blade.slotFile("nvram"));
    EXPECT_EQ(blade.process.output(), "blade: the event manager is initialised\n" + up + "\n");
    EXPECT_TRUE(blade.key.exists());
    blade.stop(SIGTERM, 0);
}

TEST(BladeBringUp, EventManagerGetsKeyIdentityAndEmptyInput) {
    BladeUnderTest blade({"--set", "SerialNumber=S-1", "--set", "ChassisSerialNumber=C-1"});
    blade.waitUntilUp();
    EXPECT_EQ(readFile(blade.slotFile("log/emp.log")),
              "key " + blade.key.text() +
                  " slot 0 serial S-1 chassis C-1 flags 0x0\nstdin empty\n");
    blade.stop(SIGINT, 0);
}

TEST(BladeBringUp, DirectoriesAreMadeForTheOwnerAlone) {
    BladeUnderTest blade;
    blade.waitUntilUp();
    for (const char* name : {"mmsg", "nvram", "log"}) {
        struct stat status {};
        ASSERT_EQ(stat(blade.slotFile(name).c_str(), &status), 0) << name;
        EXPECT_EQ(status.st_mode, S_IFDIR | 0700U) << name;
    }
}

TEST(BladeBringUp, MessagesFlowWhileItIsUp) {
    BladeUnderTest blade({"--trace"});
    blade.waitUntilUp();
    MmsgClient snmp(blade.slotFile("mmsg/snmp"));
    snmp.send(makeMmsg({.requestor = 28, .local = {27}, .handle = 77}));
    EXPECT_EQ(headerOf(snmp.receive()).handle, 77U);
    waitForLine(blade.slotFile("log/msm.log"),
                "eventmgr 0, 64 bytes, from snmp to eventlog, other blade -");
    blade.stop(SIGTERM, 0);
    EXPECT_THAT(readFile(blade.slotFile("log/msm.log")), HasSubstr("msm: summary: "));
}

TEST(BladeBringUp, LogsGoWhereTheyAreToldTo) {
    BladeUnderTest blade({"--emp-log", "-", "--msm-log", "-"});
    blade.waitUntilUp();
    blade.stop(SIGHUP, 0);
    EXPECT_THAT(blade.process.output(), HasSubstr("key " + blade.key.text() + " slot 0"));
    EXPECT_THAT(blade.process.output(), HasSubstr("msm: listening in "));
}

TEST(BladeBringUp, LogsAreContinuedNotReplaced) {
    TempDirectory logs;
    writeFile(logs.file("emp"), "before\n");
    BladeUnderTest blade({"--emp-log", logs.file("emp")});
    blade.waitUntilUp();
    EXPECT_THAT(readFile(logs.file("emp")), testing::StartsWith("before\nkey "));
}

TEST(BladeBringUp, WithoutEmpItWaitsForOneStartedByHand) {
    BladeUnderTest blade({"--no-emp"});
    blade.waitUntilUp();
    blade.process.waitForOutput("the event manager is to be started by hand: emp " +
                                blade.key.text());
    std::vector<std::string> command = commandOf("tests/standin_emp", {blade.key.text()});
    Process byHand(command, blade.base.file("hand"));
    blade.process.waitForOutput("the event manager is initialised");
    byHand.signal(SIGKILL);
    byHand.wait();
    blade.stop(SIGTERM, 0);
}

TEST(BladeBringUp, StopsTheEventManagerBeforeTheSwitch) {
    BladeUnderTest blade({"--trace"});
    blade.waitUntilUp();
    blade.stop(SIGTERM, 0);
    // The switch saw its peer go, so it was still there.
    EXPECT_NE(findLine(readFile(blade.slotFile("log/msm.log")), "eventlog#2: disconnected"), "");
    EXPECT_THAT(blade.process.output(), testing::EndsWith("blade: stopping: Terminated\n"
                                                          "blade: down\n"));
}

TEST(BladeBringUp, BlockOfADeadBladeIsReplaced) {
    TempDirectory base;
    IpcKey key;
    for (int round = 0; round < 2; ++round) {
        Process blade(bladeCommand(base.path(), key.text(), {"--emp", standIn()}),
                      base.file("blade"));
        blade.waitForOutput("blade: up: ");
        // Its children go with it, and leave the directory to the next.
        blade.signal(SIGKILL);
        blade.wait();
        EXPECT_TRUE(key.exists());
        waitForNoFile(base.file("slot0/mmsg/startup"));
    }
}
