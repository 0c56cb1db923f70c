#include "blade_fixture.h"

#include "emp_mesgs.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>

#include <sys/stat.h>

using namespace support;
using testing::HasSubstr;

// The event manager of this build instead of the stand-in.

TEST(BladeWithEventManager, ComesUpLogsAnEventAndGoesDown) {
    TempDirectory base;
    IpcKey key;
    Process blade(bladeCommand(base.path(), key.text(), {"--trace"}), base.file("blade"));
    blade.waitForOutput("blade: up: slot 0");

    MmsgClient management(base.file("slot0/mmsg/smi_ind"));
    waitForLine(base.file("slot0/log/msm.log"), "smi_ind#3: connected");
    MmsgClient snmp(base.file("slot0/mmsg/snmp"));
    Bytes event(EMP_EVENT_HEADER_SIZE);
    event[146] = MMSG_E_EPID_SNMPMP;
    event[147] = EMP_E_TYPE_WARNING;
    event[148] = EMP_E_CATEGORY_DISK;
    snmp.send(
        makeMmsg({.type = EMP_E_MSGS_LOG, .requestor = MMSG_E_EPID_SNMPMP, .local = {27}}, event));

    Bytes copy = management.receive();
    ASSERT_EQ(copy.size(), 216U);
    EXPECT_EQ(std::string(copy.begin() + 64, copy.begin() + 76), "CHASSIS-0001");
    EXPECT_EQ(std::string(copy.begin() + 128, copy.begin() + 138), "BLADE-0001");
    struct stat status {};
    ASSERT_EQ(stat(base.file("slot0/nvram/kelta_eventlog").c_str(), &status), 0);
    EXPECT_EQ(status.st_size, 1'600'000);

    blade.signal(SIGTERM);
    EXPECT_EQ(blade.wait(), exitedWith(0)) << blade.output() << blade.errorOutput();
    EXPECT_FALSE(key.exists());
}

TEST(BladeWithEventManager, DeathIsSaidAndEndsTheBlade) {
    TempDirectory base;
    IpcKey key;
    Process blade(bladeCommand(base.path(), key.text(), {}), base.file("blade"));
    blade.waitForOutput("blade: up: slot 0");
    kill(childOf(blade.pid(), "/emp"), SIGABRT);
    EXPECT_EQ(blade.wait(), exitedWith(1));
    EXPECT_THAT(blade.output(), HasSubstr("died of signal 6 (Aborted)\nblade: down\n"));
}
