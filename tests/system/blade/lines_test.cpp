/** Who reads blade's own lines must not be able to stop it. */
#include "blade_fixture.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace support;

namespace {

/** A blade whose standard output, the event manager's with it, goes where a test says. */
class BladeLines : public testing::Test {
  protected:
    BladeLines() {
        EXPECT_EQ(mkfifo(base.file("lines").c_str(), 0600), 0);
        reader = open(base.file("lines").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    }
    ~BladeLines() override { close(reader); }

    std::vector<std::string> shellCommand(const std::string& redirection) {
        std::vector<std::string> words = bladeCommand(
            base.path(), key.text(), {"--emp", program("emp"), "--emp-log", "-", "--keep"});
        std::string command = "exec";
        for (const std::string& word : words) {
            command += " '" + word + "'";
        }
        return {"sh", "-c", command + " " + redirection};
    }

    /** Logs events, each some 3 KB of lines, and sees the copies come back. */
    void expectTraffic() const {
        waitForFile(base.file("slot0/mmsg/smi_ind"));
        MmsgClient startup(base.file("slot0/mmsg/startup"));
        MmsgClient listener(base.file("slot0/mmsg/smi_ind"));
        listener.send(makeMmsg({.local = {30}}));
        while (headerOf(listener.receive()).requestor == 27) {
            // The event manager's own first events may come before.
        }
        for (U32_t i = 0; i < 200; ++i) {
            Bytes event = makeMmsg({.type = 1, .local = {27}, .handle = i}, Bytes(152 + 64));
            startup.send(event);
            Bytes copy = listener.receive();
            while (headerOf(copy).handle != i) {
                copy = listener.receive();
            }
        }
    }

    void expectEnd(Process& process) {
        process.signal(SIGTERM);
        EXPECT_EQ(process.wait(), exitedWith(0));
        EXPECT_FALSE(key.exists());
    }

    TempDirectory base;
    IpcKey key;
    int reader = -1;
};

} // namespace

TEST_F(BladeLines, ReaderThatStallsStallsNobody) {
    Process process(shellCommand(">" + base.file("lines")), base.file("blade"));
    expectTraffic();
    expectEnd(process);
}

TEST_F(BladeLines, ReaderThatVanishesEndsNobody) {
    Process process(shellCommand(">" + base.file("lines")), base.file("blade"));
    waitForFile(base.file("slot0/mmsg/eventlog"));
    close(std::exchange(reader, -1));
    expectTraffic();
    expectEnd(process);
}

TEST_F(BladeLines, ClosedStandardDescriptorsAreOpenedToNowhere) {
    Process process(shellCommand("<&- >&- 2>&-"), base.file("blade"));
    expectTraffic();
    for (const char* descriptor : {"0", "1", "2"}) {
        std::string link = "/proc/" + std::to_string(process.pid()) + "/fd/" + descriptor;
        EXPECT_EQ(std::filesystem::read_symlink(link), "/dev/null");
    }
    expectEnd(process);
}
