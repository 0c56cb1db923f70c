#include "blade_fixture.h"

#include "emp_mesgs.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace support;
using testing::HasSubstr;

// The event manager of this build instead of the stand-in.

namespace {

/** An archiver's listening socket on a port of its own. */
class ArchiverPort {
  public:
    ArchiverPort() : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(bind(listener_, generic, length), 0);
        EXPECT_EQ(listen(listener_, 5), 0);
        EXPECT_EQ(getsockname(listener_, generic, &length), 0);
        port_ = ntohs(address.sin_port);
    }
    ~ArchiverPort() { close(listener_); }
    ArchiverPort(const ArchiverPort&) = delete;
    ArchiverPort& operator=(const ArchiverPort&) = delete;

    std::string address() const { return "127.0.0.1:" + std::to_string(port_); }

    /** Takes a connection and its first message, the request for the archiver's status. */
    MmsgClient accept() const {
        timeval patience{.tv_sec = 30, .tv_usec = 0};
        setsockopt(listener_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
        MmsgClient link(::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC));
        char request[196];
        EXPECT_EQ(recv(link.descriptor(), request, sizeof(request), MSG_WAITALL), 196);
        return link;
    }

  private:
    int listener_;
    U16_t port_ = 0;
};

} // namespace

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

TEST(BladeWithEventManager, BugCheckIsShownAndTheArchiverIsToldAgain) {
    TempDirectory base;
    IpcKey key;
    ArchiverPort archiver;
    Process blade(bladeCommand(base.path(), key.text(),
                               {"--restart", "on-failure", "--archiver", archiver.address()}),
                  base.file("blade"));
    blade.waitForOutput("blade: up: slot 0");
    MmsgClient link = archiver.accept();
    // A message of 176 bytes that ends after 16: the event manager stops itself.
    Bytes half{0, 1, 0, 176, 0, 6, 0, 2};
    half.resize(16);
    link.send(half);
    blade.waitForOutput("it is started again (1 of 3)");
    std::string output = blade.output();
    EXPECT_NE(findLine(output, "blade: bug-check of the event manager: "), "");
    EXPECT_THAT(findLine(output, "blade: bug-check in "),
                HasSubstr("; the report is in " + base.file("slot0/log/emp.log") +
                          ", its records for the next start in " +
                          base.file("slot0/nvram/aelfiles")));
    archiver.accept();
    blade.signal(SIGTERM);
    EXPECT_EQ(blade.wait(), exitedWith(1)) << blade.output() << blade.errorOutput();
}
