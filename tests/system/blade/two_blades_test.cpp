#include "blade_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>

using namespace support;
using testing::HasSubstr;

TEST(TwoBlades, RunSideBySideAndTalk) {
    TempDirectory base;
    IpcKey keys[2];
    auto command = [&](int slot) {
        return bladeCommand(base.path(), keys[slot].text(),
                            {"--emp", standIn(), "--slot", std::to_string(slot), "--other",
                             std::to_string(1 - slot), "--trace"});
    };
    Process first(command(0), base.file("first"));
    first.waitForOutput("blade: up: slot 0, ");
    Process second(command(1), base.file("second"));
    second.waitForOutput("blade: up: slot 1, ");
    for (const char* slot : {"slot0", "slot1"}) {
        waitForLine(base.file(std::string(slot) + "/log/msm.log"), "link: connected to ");
    }
    EXPECT_THAT(readFile(base.file("slot1/log/emp.log")),
                HasSubstr("slot 1 serial BLADE-0001 chassis CHASSIS-0001 flags 0x2\n"));

    // A request from blade 0 to the event manager of blade 1, which answers to both blades.
    MmsgClient snmp(base.file("slot0/mmsg/snmp"));
    snmp.send(makeMmsg({.requestor = 28, .other = {27}, .handle = 5}));
    Bytes answer = snmp.receive();
    EXPECT_EQ(headerOf(answer).handle, 5U);
    EXPECT_EQ(headerOf(answer).mmsg_cont, 0xC0);

    for (Process* blade : {&first, &second}) {
        blade->signal(SIGTERM);
        EXPECT_EQ(blade->wait(), exitedWith(0));
    }
    EXPECT_FALSE(keys[0].exists() || keys[1].exists());
}
