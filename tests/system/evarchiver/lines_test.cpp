/** An archiver whose lines nobody takes. */
#include "blade_link.h"
#include "program.h"

#include <csignal>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace support;

namespace {

class ArchiverLines : public ArchiverProcessTest {
  protected:
    /** An archiver below a shell that redirects its standard descriptors. */
    void startWith(const std::string& redirection) {
        port_ = freePort();
        archiver_ = std::make_unique<Process>(
            std::vector<std::string>{"sh", "-c",
                                     "exec " + program("evarchiver") +
                                         " --listen 127.0.0.1:" + std::to_string(port_) + " --db " +
                                         database_ + " " + redirection},
            directory_.file("archiver"));
    }

    /** A pipe that an archiver can write to. @return this test's end */
    int openPipe() const {
        EXPECT_EQ(mkfifo(pipe_.c_str(), 0600), 0);
        return open(pipe_.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    }

    /** Has events filed and claimed, each claim being a line. */
    void expectService() {
        std::unique_ptr<BladeLink> link;
        requireSoon(
            [&] {
                try {
                    link = std::make_unique<BladeLink>(port_);
                    return true;
                } catch (const std::runtime_error&) {
                    return false; // does not listen yet
                }
            },
            "an archiver that listens");
        EXPECT_EQ(claim(*link, event(1)).flag, 1U);
        link->send(events(1, 20));
        for (int i = 0; i < 20; ++i) {
            claim(*link, event(1));
        }
        EXPECT_GE(claim(*link, event(1)).last, 18U);
    }

    void expectOrderlyEnd() {
        archiver_->signal(SIGTERM);
        EXPECT_EQ(archiver_->wait(), exitedWith(0));
    }

    std::string pipe_ = directory_.file("lines");
};

TEST_F(ArchiverLines, ReaderThatStallsDoesNotStallTheArchiver) {
    const int reader = openPipe();
    const std::string bytes(4096, '\n');
    while (write(reader, bytes.data(), bytes.size()) > 0) {
    }
    startWith(">" + pipe_);
    expectService();
    expectOrderlyEnd();
    close(reader);
}

TEST_F(ArchiverLines, ReaderThatVanishesDoesNotEndTheArchiver) {
    const int reader = openPipe();
    startWith(">" + pipe_);
    waitForFile(database_);
    close(reader);
    expectService();
    expectOrderlyEnd();
}

TEST_F(ArchiverLines, ClosedStandardDescriptorsAreNotTakenForTheArchive) {
    startWith("<&- >&- 2>&-");
    expectService();
    expectOrderlyEnd();
}

} // namespace
