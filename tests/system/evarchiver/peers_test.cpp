/** Peers that say nothing, too much, or lie; and what is watched of all of them. */
#include "archive_lock.h"
#include "blade_link.h"

#include <gmock/gmock.h>

#include <arpa/inet.h>
#include <csignal>
#include <filesystem>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <random>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace support;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

class PeersTest : public ArchiverProcessTest {};

// The number that the next descriptor of a process gets.
rlim_t nextDescriptorOf(pid_t process) {
    const std::string path = "/proc/" + std::to_string(process) + "/fd/";
    rlim_t number = 0;
    while (access((path + std::to_string(number)).c_str(), F_OK) == 0) {
        ++number;
    }
    return number;
}

/** A process's own end of a connection, as a descriptor here. */
class FarEnd {
  public:
    FarEnd(pid_t process, U16_t peersPort) {
        const int handle = static_cast<int>(syscall(SYS_pidfd_open, process, 0));
        const std::string path = "/proc/" + std::to_string(process) + "/fd";
        for (const auto& entry : std::filesystem::directory_iterator(path)) {
            const int number = std::stoi(entry.path().filename());
            const int copy = static_cast<int>(syscall(SYS_pidfd_getfd, handle, number, 0));
            sockaddr_in peer{};
            socklen_t length = sizeof(peer);
            if (getpeername(copy, reinterpret_cast<sockaddr*>(&peer), &length) == 0 &&
                peer.sin_family == AF_INET && ntohs(peer.sin_port) == peersPort) {
                descriptor_ = copy;
            } else {
                close(copy);
            }
        }
        close(handle);
    }
    ~FarEnd() { close(descriptor_); }
    FarEnd(const FarEnd&) = delete;
    FarEnd& operator=(const FarEnd&) = delete;

    bool isThere() const { return descriptor_ >= 0; }

    int option(int level, int name) const {
        int value = -1;
        socklen_t size = sizeof(value);
        getsockopt(descriptor_, level, name, &value, &size);
        return value;
    }

  private:
    int descriptor_ = -1;
};

double figure(const std::string& text, const std::string& name) {
    const std::size_t line = text.find("\nevarchiver_" + name + " ");
    return line == std::string::npos ? -1
                                     : std::stod(text.substr(line + name.size() + std::size_t{13}));
}

} // namespace

TEST_F(PeersTest, ConnectionThatSaysNothingIsClosed) {
    start({"--first-wait", "1"});
    BladeLink blade(port_);
    claim(blade, event(0));
    BladeLink silent(port_);
    EXPECT_TRUE(silent.isClosed());
    EXPECT_THAT(archiver_->waitForOutput("said nothing, closed"), HasSubstr(" notice: "));
    EXPECT_EQ(claim(blade, event(0)), (Claim{0, 1})); // is as it was
}

TEST_F(PeersTest, HalfARequestIsNoFirstRequest) {
    start({"--first-wait", "1"});
    BladeLink slow(port_);
    const Bytes request = statusOf(event(0));
    slow.send(Bytes(request.begin(), request.begin() + 100));
    EXPECT_TRUE(slow.isClosed());
}

TEST_F(PeersTest, BladeThatIsGoneWithoutAWordIsNoticed) {
    start({"--progress", "0"});
    BladeLink blade(port_);
    claim(blade, event(0));
    const FarEnd link(archiver_->pid(), blade.port());
    if (!link.isThere()) {
        GTEST_SKIP() << "no descriptors of other processes";
    }
    EXPECT_EQ(link.option(SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(link.option(IPPROTO_TCP, TCP_KEEPIDLE), 60);
    EXPECT_EQ(link.option(IPPROTO_TCP, TCP_KEEPINTVL), 10);
    EXPECT_EQ(link.option(IPPROTO_TCP, TCP_KEEPCNT), 3);
    EXPECT_EQ(link.option(IPPROTO_TCP, TCP_USER_TIMEOUT), 90'000);
    // And what answers need, to arrive whole.
    EXPECT_EQ(link.option(IPPROTO_TCP, TCP_NODELAY), 1);
    EXPECT_EQ(link.option(IPPROTO_IP, IP_MTU_DISCOVER), IP_PMTUDISC_DONT);
}

TEST_F(PeersTest, LinkThatIsEndedHereEndsInOrderWhileItsBladeSendsOn) {
    start({"--test-close-after", "2", "--receive-buffer", "4096"});
    BladeLink blade(port_, 4096);
    claim(blade, event(0));
    blade.send(events(0, 2000)); // all of it is taken off the wire
    EXPECT_TRUE(blade.isClosedInOrder());
    EXPECT_EQ(stop(), exitedWith(0));
    EXPECT_THAT(archiver_->output(), HasSubstr("summary: 2 messages"));
}

TEST_F(PeersTest, ConnectionsAreTakenAtTheRateAskedFor) {
    start({"--handshake-rate", "10"});
    const auto begun = std::chrono::steady_clock::now();
    std::vector<std::unique_ptr<BladeLink>> links;
    for (U32_t slot = 0; slot < 5; ++slot) {
        links.push_back(std::make_unique<BladeLink>(port_));
        links.back()->send(statusOf(event(0, {.slot = slot})));
    }
    for (const auto& link : links) {
        link->receive();
    }
    // A tenth of a second's worth at once, then one in each.
    EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(380));
}

TEST_F(PeersTest, PeerThatAsksWithoutEndIsClosed) {
    start({"--progress", "0"});
    BladeLink blade(port_);
    claim(blade, event(0));
    ArchiveLock lock(database_);
    blade.send(events(0, 9));
    Bytes many;
    const Bytes one = inquiryMessage(EXACT, {}, 5, 1);
    for (int count = 0; count < 10'001; ++count) {
        many.insert(many.end(), one.begin(), one.end());
    }
    BladeLink greedy(port_);
    greedy.send(many);
    EXPECT_TRUE(greedy.isClosed());
    archiver_->waitForOutput("asks faster than it is answered, closed");
    lock.release();
    EXPECT_EQ(claim(blade, event(0)), (Claim{8, 0}));
}

TEST_F(PeersTest, JunkHarmsNobodyElse) {
    start({"--progress", "0"});
    BladeLink blade(port_);
    claim(blade, event(0));
    std::mt19937 random(7);
    for (U32_t round = 0; round < 100; ++round) {
        Bytes junk = eventMessage({.log = {.blade = "LIAR"}, .id = round, .data = Bytes(40, 9)});
        for (int damage = 0; damage < 3; ++damage) {
            junk[random() % junk.size()] = static_cast<U8_t>(random());
        }
        junk.resize(1 + random() % junk.size());
        BladeLink liar(port_);
        liar.send(junk);
        blade.send(events(round * 10, round * 10 + 9));
    }
    EXPECT_EQ(claim(blade, event(0)), (Claim{998, 0}));
    BladeLink asker(port_);
    for (U32_t id = 0; id < 1000; id += 97) {
        const Bytes answer = asker.ask(inquiryMessage(EXACT, {}, id, 1));
        EXPECT_EQ(Bytes(answer.begin() + 16, answer.end()), eventBody(event(id)));
    }
}

TEST_F(PeersTest, PeerThatSpeaksForAnotherBladeChangesNothingOfItsLog) {
    start({"--progress", "0"});
    BladeLink blade(port_);
    claim(blade, event(0));
    blade.send(events(0, 9));
    ASSERT_EQ(claim(blade, event(0)), (Claim{8, 0}));
    const LogName own{"ENC-A", "LIAR", 9, 1};
    BladeLink liar(port_);
    claim(liar, event(0, own));
    EventFields false5 = event(5); // the blade's identity, other bytes
    false5.time = 9999;
    liar.send(eventMessage(false5) + eventMessage(event(6, own)));
    claim(liar, event(0, own));
    const Bytes answer = liar.ask(inquiryMessage(EXACT, {}, 5, 1));
    EXPECT_EQ(Bytes(answer.begin() + 16, answer.end()), eventBody(event(5)));
    EXPECT_EQ(claim(blade, event(0)), (Claim{8, 0}));
    EXPECT_EQ(stop(), exitedWith(0));
    EXPECT_THAT(archiver_->output(), HasSubstr(" 1 set aside, "));
    EXPECT_THAT(archiver_->output(), HasSubstr(" 0 generations opened"));
}

TEST_F(PeersTest, WithoutADescriptorAConnectionIsClosedAndNotLeftWaiting) {
    start({"--progress", "0"});
    BladeLink blade(port_);
    claim(blade, event(0));
    rlimit usual{};
    ASSERT_EQ(prlimit(archiver_->pid(), RLIMIT_NOFILE, nullptr, &usual), 0);
    const rlimit none{nextDescriptorOf(archiver_->pid()), usual.rlim_max};
    ASSERT_EQ(prlimit(archiver_->pid(), RLIMIT_NOFILE, &none, nullptr), 0);
    BladeLink further(port_);
    EXPECT_TRUE(further.isClosed());
    EXPECT_THAT(archiver_->waitForOutput("there is no descriptor left"), HasSubstr(" warning: "));
    ASSERT_EQ(prlimit(archiver_->pid(), RLIMIT_NOFILE, &usual, nullptr), 0);
    BladeLink last(port_);
    EXPECT_EQ(claim(last, event(0, {.slot = 2})), (Claim{0, 1}));
}

TEST_F(PeersTest, FiguresTellWhatHappened) {
    const U16_t port = freePort();
    start({"--metrics", std::to_string(port), "--progress", "0"});
    {
        BladeLink blade(port_);
        claim(blade, event(0));
        blade.send(events(0, 9) + events(9, 9) + events(15, 19)); // one twice, one gap
        EventFields other = event(3);
        other.time = 5;
        blade.send(eventMessage(other)); // the log counts again
        claim(blade, event(0));
        blade.receive(); // the answer that nobody asked for
        BladeLink asker(port_);
        asker.ask(inquiryMessage(EXACT, {}, 3, 1));
        asker.ask(inquiryMessage(EXACT, {}, 4, 1)); // not in the new generation
        {
            BladeLink junk(port_);
            junk.send(Bytes(100, 0xFF));
            EXPECT_TRUE(junk.isClosed());
        }
        std::string text;
        requireSoon(
            [&] {
                text = scrape(port);
                return figure(text, "messages_total") == 21 && figure(text, "links") == 2;
            },
            "the figures of a second ago");
        const std::map<std::string, double> expected = {{"events_stored_total", 16},
                                                        {"duplicates_total", 1},
                                                        {"generations_opened_total", 1},
                                                        {"gaps_total", 1},
                                                        {"status_answers_total", 2},
                                                        {"inquiries_found_total", 1},
                                                        {"inquiries_not_found_total", 1},
                                                        {"events_set_aside_total", 0},
                                                        {"events_refused_total", 0},
                                                        {"streams_without_borders_total", 1},
                                                        {"archive_away", 0},
                                                        {"lag_seconds", 0},
                                                        {"connections_refused_total", 0},
                                                        {"links_shed_total", 0},
                                                        {"answers_late_total", 0}};
        for (const auto& [name, value] : expected) {
            EXPECT_EQ(figure(text, name), value) << name;
        }
        EXPECT_GT(figure(text, "commits_total"), 0);
        EXPECT_GT(figure(text, "commit_seconds_total"), 0);
        EXPECT_GE(figure(text, "commit_seconds_total"), figure(text, "commit_seconds_max"));
        EXPECT_GT(figure(text, "disk_free_bytes"), 0);
        EXPECT_GT(figure(text, "archive_bytes"), 0);
        std::size_t bytes = 0;
        for (U32_t id = 0; id < 20; ++id) {
            bytes += id < 10 || id >= 15 ? eventBody(event(id)).size() : 0;
        }
        EXPECT_EQ(figure(text, "event_bytes_stored_total"),
                  static_cast<double>(bytes + eventBody(event(3)).size()));
    }
    EXPECT_EQ(stop(), exitedWith(1));
}

TEST_F(PeersTest, FiguresTellThatTheArchiveIsAway) {
    const U16_t port = freePort();
    start({"--metrics", std::to_string(port), "--progress", "0"});
    BladeLink blade(port_);
    claim(blade, event(0));
    ArchiveLock lock(database_);
    blade.send(events(0, 99));
    std::string text;
    const auto isAway = [&] {
        text = scrape(port);
        return figure(text, "archive_away") == 1;
    };
    requireSoon(isAway, "the figures");
    EXPECT_GT(figure(text, "spooled_bytes"), 20'000);
    EXPECT_GT(figure(text, "lag_seconds"), 0);
    EXPECT_EQ(figure(text, "events_stored_total"), 0);
    EXPECT_THAT(scrape(port, "/ready"), AllOf(StartsWith("HTTP/1.1 503 "),
                                              EndsWith("\r\n\r\nthe archive cannot be written\n")));
    lock.release();
    requireSoon(
        [&] {
            text = scrape(port);
            return figure(text, "archive_away") == 0 && figure(text, "spooled_bytes") == 0;
        },
        "the archive to be back");
    EXPECT_EQ(figure(text, "lag_seconds"), 0);
    EXPECT_GE(figure(text, "events_stored_total"), 99);
    EXPECT_THAT(scrape(port, "/ready"),
                AllOf(StartsWith("HTTP/1.1 200 "), EndsWith("\r\n\r\nready\n")));
    const double commits = figure(text, "commits_total");
    EXPECT_EQ(figure(text, "commit_seconds_count"), commits);
    EXPECT_EQ(figure(text, "commit_seconds_bucket{le=\"+Inf\"}"), commits);
    EXPECT_EQ(figure(text, "handshake_seconds_count"), 1);
}

TEST_F(PeersTest, ItIsReadyNeitherBeforeItsFirstSecondNorWhileItEnds) {
    const U16_t port = freePort();
    bool hasSaidSo = false;
    for (int attempt = 0; attempt < 10 && !hasSaidSo; ++attempt) { // a machine may be slow
        if (archiver_) {
            stop();
        }
        start({"--metrics", std::to_string(port), "--progress", "0"});
        hasSaidSo = scrape(port, "/ready").find("it has just been started") != std::string::npos;
    }
    EXPECT_TRUE(hasSaidSo);
    BladeLink blade(port_);
    claim(blade, event(0));
    requireSoon([&] { return scrape(port, "/ready").ends_with("\nready\n"); }, "the first second");
    ArchiveLock lock(database_);
    blade.send(events(0, 99));
    requireSoon([&] { return figure(scrape(port), "archive_away") == 1; }, "the figures");
    archiver_->signal(SIGTERM);
    const auto isEnding = [&] {
        return scrape(port, "/ready").ends_with("\r\n\r\nit is ending\n");
    };
    requireSoon(isEnding, "the end");
    ArchiveLock::holdFor(std::chrono::milliseconds(1500));
    EXPECT_TRUE(isEnding()) << "until what it holds is filed";
    lock.release();
    EXPECT_EQ(archiver_->wait(), exitedWith(0));
}

TEST_F(PeersTest, FiguresAreServedOnTheLoopbackOnly) {
    const U16_t port = freePort();
    start({"--metrics", std::to_string(port)});
    EXPECT_NE(scrape(port).find("evarchiver_links "), std::string::npos);
    const std::string line = "ss -Hltn 'sport = :" + std::to_string(port) + "'";
    Process list({"sh", "-c", line}, directory_.file("ss"));
    list.wait();
    EXPECT_THAT(list.output(), HasSubstr("127.0.0.1:" + std::to_string(port)));
    EXPECT_THAT(list.output(), Not(HasSubstr("0.0.0.0:" + std::to_string(port))));
}
