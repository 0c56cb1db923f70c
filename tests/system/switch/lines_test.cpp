#include "switch_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace support;
using testing::HasSubstr;

namespace {

/** A traced switch whose lines go into a pipe that this test reads when it likes. */
class SwitchLines : public testing::Test {
  protected:
    SwitchLines() {
        EXPECT_EQ(mkfifo(directory.file("lines").c_str(), 0600), 0);
        reader = open(directory.file("lines").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    }
    ~SwitchLines() override { close(reader); }

    std::string shellCommand(const std::string& redirection) const {
        return "exec " + runnerText() + " " + program("msm") + " " + directory.path() +
               " --trace " + redirection;
    }

    /** Has 2000 messages of which each is a line go through. */
    void expectTraffic() const {
        MmsgClient startup(directory.file("startup"));
        MmsgClient snmp(directory.file("snmp"));
        // Taken for connected once it gets something.
        snmp.send(makeMmsg({.local = {28}}));
        snmp.receive();
        for (U32_t i = 0; i < 2000; ++i) {
            startup.send(makeMmsg({.local = {28}, .handle = i}));
            ASSERT_EQ(headerOf(snmp.receive()).handle, i);
        }
    }

    std::string readLines() const {
        std::string text(1 << 20, '\0');
        ssize_t count = read(reader, text.data(), text.size());
        text.resize(count > 0 ? static_cast<size_t>(count) : 0);
        return text;
    }

    TempDirectory directory;
    int reader = -1;
};

} // namespace

TEST_F(SwitchLines, ReaderThatStallsDoesNotStallTheSwitch) {
    Process msm({"sh", "-c", shellCommand(">" + directory.file("lines"))}, directory.file("msm"));
    expectTraffic();
    EXPECT_THAT(readLines(), HasSubstr("msm: listening in "));
    msm.signal(SIGTERM);
    EXPECT_EQ(msm.wait(), exitedWith(0));
    std::string rest = readLines();
    EXPECT_THAT(rest, HasSubstr(" lines were dropped here: nobody read\n"));
    EXPECT_THAT(rest, HasSubstr("messages 2001, reached nobody 0"));
}

TEST_F(SwitchLines, ReaderThatVanishesDoesNotEndTheSwitch) {
    Process msm({"sh", "-c", shellCommand(">" + directory.file("lines"))}, directory.file("msm"));
    waitForFile(directory.file("eventlog"));
    close(std::exchange(reader, -1));
    expectTraffic();
    msm.signal(SIGTERM);
    EXPECT_EQ(msm.wait(), exitedWith(0));
}

TEST_F(SwitchLines, ClosedStandardDescriptorsAreNotTakenForSockets) {
    Process msm({"sh", "-c", shellCommand("<&- >&- 2>&-")}, directory.file("msm"));
    expectTraffic();
    msm.signal(SIGTERM);
    EXPECT_EQ(msm.wait(), exitedWith(0));
}
