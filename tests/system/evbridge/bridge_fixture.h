/**
 * @file
 * A bridge, an archive to hand on from, and a receiver that the test plays.
 */
#ifndef EVBRIDGE_TEST_FIXTURE_H
#define EVBRIDGE_TEST_FIXTURE_H

#include "blade_link.h"
#include "program.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace support {

/** A receiver of datagrams. */
class Datagrams {
  public:
    explicit Datagrams(const std::string& path)
        : path_(path), descriptor_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        EXPECT_EQ(bind(descriptor_, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    }
    ~Datagrams() {
        close(descriptor_);
        unlink(path_.c_str());
    }
    Datagrams(const Datagrams&) = delete;
    Datagrams& operator=(const Datagrams&) = delete;

    /** The next one; empty: nothing came before the deadline. */
    std::string next(std::chrono::milliseconds deadline = DEADLINE) const {
        pollfd readable{descriptor_, POLLIN, 0};
        if (poll(&readable, 1, static_cast<int>(deadline.count())) != 1) {
            return {};
        }
        std::string bytes(65'536, '\0');
        bytes.resize(static_cast<size_t>(recv(descriptor_, bytes.data(), bytes.size(), 0)));
        return bytes;
    }

  private:
    std::string path_;
    int descriptor_;
};

/** The sequence id that a message names, or 0. */
inline U32_t sequenceOf(const std::string& message) {
    const size_t at = message.find(" sequence=\"");
    return at == std::string::npos ? 0 : static_cast<U32_t>(std::stoul(message.substr(at + 11)));
}

/** Tests of the bridge as a process, its source an archive. */
class BridgeTest : public ArchiverProcessTest {
  protected:
    /** Files events of the blade, all certain. */
    void file(U32_t first, U32_t last, const LogName& log = {}) {
        if (!archiver_) {
            start();
        }
        BladeLink link(port_);
        claim(link, event(first, log));
        link.send(events(first, last, log));
        claim(link, event(first, log));
    }

    std::unique_ptr<Process> bridge(const std::string& to,
                                    const std::vector<std::string>& more = {"--once"}) {
        std::vector<std::string> all = {"--from",   from_,       "--to",       to,
                                        "--cursor", cursorPath_, "--interval", "0.1"};
        all.insert(all.end(), more.begin(), more.end());
        return std::make_unique<Process>(commandOf("evbridge", all),
                                         directory_.file("bridge" + std::to_string(++starts_)));
    }

    /** The ids that come until there are @p count messages. */
    static std::vector<U32_t> ids(const Datagrams& receiver, size_t count) {
        std::vector<U32_t> found;
        while (found.size() < count) {
            const std::string message = receiver.next();
            if (message.empty()) {
                break;
            }
            found.push_back(sequenceOf(message));
        }
        return found;
    }

    /** All numbers from first to last. */
    static std::vector<U32_t> range(U32_t first, U32_t last) {
        std::vector<U32_t> all;
        for (U32_t id = first; id <= last; ++id) {
            all.push_back(id);
        }
        return all;
    }

    std::string from_ = database_;
    std::string socketPath_ = directory_.file("receiver");
    std::string syslog_ = "syslog:unix:" + socketPath_;
    std::string cursorPath_ = directory_.file("cursor");
};

/** What came, each event once or more: without repetitions it is everything, in order. */
inline void expectAllInOrder(const std::vector<U32_t>& came, U32_t last) {
    U32_t newest = 0;
    for (const U32_t id : came) {
        ASSERT_LE(id, newest + 1) << "nothing is left out";
        newest = std::max(newest, id);
    }
    EXPECT_EQ(newest, last);
}

} // namespace support

#endif
