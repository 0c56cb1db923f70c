/**
 * The bridge and receivers that sites have: rsyslogd and snmptrapd, each a process that is killed
 * and comes back. BRIDGE_ROUNDS=n kills each n times, see scripts/prove.
 */
#include "bridge_fixture.h"
#include "certificates.h"

#include <gmock/gmock.h>

#include <arpa/inet.h>
#include <csignal>
#include <fstream>
#include <netinet/in.h>
#include <set>
#include <sys/socket.h>
#include <thread>

using namespace support;
using testing::HasSubstr;

namespace {

int rounds() {
    const char* rounds = getenv("BRIDGE_ROUNDS"); // NOLINT(concurrency-mt-unsafe)
    return rounds != nullptr ? atoi(rounds) : 2;
}

bool isInstalled(const char* program) {
    return access(program, X_OK) == 0;
}

constexpr char RSYSLOGD[] = "/usr/sbin/rsyslogd";
constexpr char SNMPTRAPD[] = "/usr/sbin/snmptrapd";

class ReceiversTest : public BridgeTest {
  protected:
    ~ReceiversTest() override {
        if (receiver_) {
            receiver_->signal(SIGKILL);
            receiver_->wait();
        }
    }

    /** rsyslogd that has written a message to messages_ before it takes it for done. */
    void configure(const std::string& input) {
        ASSERT_TRUE(isInstalled(RSYSLOGD)) << "scripts/setup installs it";
        writeFile(config_, "global(workDirectory=\"" + directory_.path() +
                               "\" maxMessageSize=\"16k\")\n" +
                               "main_queue(queue.type=\"Direct\")\n"
                               "template(name=\"raw\" type=\"string\" string=\"%rawmsg%\\n\")\n" +
                               input + "\naction(type=\"omfile\" file=\"" + messages_ +
                               "\" template=\"raw\")\n");
    }

    void startRsyslog() {
        receiver_ =
            std::make_unique<Process>(std::vector<std::string>{RSYSLOGD, "-n", "-f", config_, "-i",
                                                               directory_.file("rsyslogd.pid")},
                                      directory_.file("receiver" + std::to_string(++receivers_)));
    }

    void kill() {
        receiver_->signal(SIGKILL);
        receiver_->wait();
    }

    /** The ids of the messages that have come. */
    std::vector<U32_t> came() const {
        std::vector<U32_t> ids;
        std::ifstream file(messages_);
        for (std::string line; std::getline(file, line);) {
            if (const U32_t id = sequenceOf(line); id > 0) {
                ids.push_back(id);
            }
        }
        return ids;
    }

    void waitFor(U32_t id) {
        requireSoon(
            [&] {
                const auto ids = came();
                return !ids.empty() && ids.back() >= id;
            },
            "message " + std::to_string(id));
    }

    std::string portText_ = std::to_string(freePort());
    std::string config_ = directory_.file("receiver.conf");
    std::string messages_ = directory_.file("messages");
    std::unique_ptr<Process> receiver_;
    int receivers_ = 0;
};

TEST_F(ReceiversTest, RelpLosesNothingWhenItsReceiverIsKilledInMidStream) {
    const U32_t each = 1200;
    const auto last = static_cast<U32_t>(rounds() + 1) * each;
    file(1, last);
    configure("module(load=\"imrelp\")\ninput(type=\"imrelp\" address=\"127.0.0.1\" port=\"" +
              portText_ + "\" maxDataSize=\"16k\")");
    startRsyslog();
    const auto running = bridge("syslog:relp:127.0.0.1:" + portText_, {});
    for (int round = 0; round < rounds(); ++round) {
        waitFor(static_cast<U32_t>(round) * each + 100);
        kill();
        const std::size_t held = came().size();
        EXPECT_GE(held, 100U);
        startRsyslog();
    }
    waitFor(last);
    expectAllInOrder(came(), last);
    running->signal(SIGTERM);
    EXPECT_EQ(running->wait(), exitedWith(0));
}

TEST_F(ReceiversTest, TheCursorOfRelpStandsBehindWhatWasAnswered) {
    file(1, 600);
    configure("module(load=\"imrelp\")\ninput(type=\"imrelp\" address=\"127.0.0.1\" port=\"" +
              portText_ + "\" maxDataSize=\"16k\")");
    startRsyslog();
    EXPECT_EQ(bridge("syslog:relp:127.0.0.1:" + portText_)->wait(), exitedWith(0));
    EXPECT_EQ(came(), range(1, 600));
}

TEST_F(ReceiversTest, TcpLosesNothingWhenAReceiverThatHasReadItAllIsKilled) {
    configure("module(load=\"imtcp\")\ninput(type=\"imtcp\" address=\"127.0.0.1\" port=\"" +
              portText_ + "\")");
    startRsyslog();
    file(1, 10);
    const auto running = bridge("syslog:tcp:127.0.0.1:" + portText_, {});
    U32_t last = 10;
    for (int round = 0; round < rounds(); ++round) {
        waitFor(last);
        kill();
        last += 10;
        file(1, last); // while it is away
        startRsyslog();
    }
    waitFor(last);
    expectAllInOrder(came(), last);
}

TEST_F(ReceiversTest, UdpBringsWhatTheNetworkDoes) {
    configure("module(load=\"imudp\")\ninput(type=\"imudp\" address=\"127.0.0.1\" port=\"" +
              portText_ + "\")");
    startRsyslog();
    file(1, 20);
    const auto running = bridge("syslog:udp:127.0.0.1:" + portText_, {});
    const auto closed = [&] { return findLine(running->output(), "tried again"); };
    waitFor(20);
    expectAllInOrder(came(), 20);
    EXPECT_EQ(closed(), "");
}

class TlsReceiverTest : public ReceiversTest {
  protected:
    TlsReceiverTest() {
        configure("global(defaultNetstreamDriverCAFile=\"" + authority_.path() +
                  "\" defaultNetstreamDriverCertFile=\"" + server_.certificate +
                  "\" defaultNetstreamDriverKeyFile=\"" + server_.key +
                  "\")\nmodule(load=\"imtcp\" StreamDriver.Name=\"ossl\" StreamDriver.Mode=\"1\" "
                  "StreamDriver.AuthMode=\"x509/certvalid\")\ninput(type=\"imtcp\" "
                  "address=\"127.0.0.1\" port=\"" +
                  portText_ + "\")");
        startRsyslog();
        file(1, 30);
    }

    std::unique_ptr<Process> overTls(std::vector<std::string> more) {
        more.insert(more.end(), {"--once", "--ca", authority_.path()});
        return bridge("syslog:tls:127.0.0.1:" + portText_, more);
    }

    Authority authority_{directory_.file("ca")};
    Identity server_ = authority_.issue("server");
};

TEST_F(TlsReceiverTest, TakesWhatComesWithACertificate) {
    const Identity client = authority_.issue("client");
    const auto running = overTls(
        {"--name", "server.example", "--certificate", client.certificate, "--key", client.key});
    EXPECT_EQ(running->wait(), exitedWith(0));
    waitFor(30);
    EXPECT_EQ(came(), range(1, 30));
}

TEST_F(TlsReceiverTest, ThatRefusesUsGetsNothingAndNothingCountsAsHandedOn) {
    const auto running = overTls({"--name", "server.example"});
    running->waitForOutput("no TLS link");
    EXPECT_NE(access(cursorPath_.c_str(), F_OK), 0);
}

/** Stands in front of a server, and keeps back what the client says behind its first words until it
 * is silent. */
class HoldingRelay {
  public:
    explicit HoldingRelay(int server) : server_(server) {
        sockaddr_in address = loopback(0);
        EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        EXPECT_EQ(listen(listener_, 8), 0);
        thread_ = std::thread([this] {
            for (int client = -1; (client = accept(listener_, nullptr, nullptr)) >= 0;) {
                relay(client);
            }
        });
    }
    ~HoldingRelay() {
        shutdown(listener_, SHUT_RDWR);
        thread_.join();
        close(listener_);
    }
    HoldingRelay(const HoldingRelay&) = delete;
    HoldingRelay& operator=(const HoldingRelay&) = delete;

    int port() const {
        sockaddr_in address{};
        socklen_t size = sizeof(address);
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size);
        return ntohs(address.sin_port);
    }

  private:
    static constexpr int SILENCE = 100; // ms

    static sockaddr_in loopback(int port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<U16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return address;
    }

    // Until one of them ends.
    void relay(int client) const {
        const int server = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_in address = loopback(server_);
        connect(server, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
        std::string held;
        bool hasAnswered = false;
        for (bool goesOn = true; goesOn;) {
            pollfd ends[] = {{client, POLLIN, 0}, {server, POLLIN, 0}};
            const bool isSilent = poll(ends, 2, held.empty() ? -1 : SILENCE) == 0;
            if ((ends[0].revents) != 0) {
                goesOn = take(client, held);
            }
            if (ends[1].revents != 0) {
                std::string words;
                goesOn = take(server, words) && goesOn;
                send(client, words.data(), words.size(), MSG_NOSIGNAL);
                hasAnswered = true;
            }
            if (isSilent || !hasAnswered) {
                send(server, held.data(), held.size(), MSG_NOSIGNAL);
                held.clear();
            }
        }
        close(client);
        close(server);
    }

    static bool take(int descriptor, std::string& words) {
        char space[4096];
        const ssize_t size = recv(descriptor, space, sizeof(space), 0);
        words.append(space, size > 0 ? static_cast<size_t>(size) : 0);
        return size > 0;
    }

    int server_;
    int listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::thread thread_;
};

// What is sent is acknowledged by its system before it has looked at our certificate.
TEST_F(TlsReceiverTest, ThatTakesItsTimeToRefuseUsGetsNothingAndNothingCountsAsHandedOn) {
    const HoldingRelay relay(std::stoi(portText_));
    const auto running = bridge("syslog:tls:127.0.0.1:" + std::to_string(relay.port()),
                                {"--once", "--ca", authority_.path(), "--name", "server.example"});
    running->waitForOutput("no TLS link");
    EXPECT_NE(access(cursorPath_.c_str(), F_OK), 0);
    running->signal(SIGKILL);
    running->wait();
}

TEST_F(TlsReceiverTest, OfAnotherNameGetsNothing) {
    const auto running = overTls({"--name", "other.example"});
    EXPECT_THAT(running->waitForOutput("tried again"), HasSubstr("its certificate"));
    EXPECT_TRUE(came().empty());
}

/** Errors, each with its data. */
class TrapsTest : public ReceiversTest {
  protected:
    void startTraps() {
        ASSERT_TRUE(isInstalled(SNMPTRAPD)) << "scripts/setup installs it";
        writeFile(config_, "disableAuthorization yes\nformat execute %v\\n\n");
        receiver_ = std::make_unique<Process>(
            std::vector<std::string>{SNMPTRAPD, "-f", "-A", "-C", "-c", config_, "-m", "", "-On",
                                     "-Lf", messages_, "udp:127.0.0.1:" + portText_},
            directory_.file("traps" + std::to_string(++receivers_)),
            Process::Environment{{"SNMP_PERSISTENT_DIR", directory_.file("snmp")}});
    }

    /** Files errors. */
    void errors(U32_t first, U32_t last) {
        if (!archiver_) {
            start();
        }
        BladeLink link(port_);
        claim(link, event(first));
        for (U32_t id = first; id <= last; ++id) {
            link.send(error(id));
        }
        claim(link, event(first));
    }

    static Bytes error(U32_t id) {
        Bytes message = eventMessage({.id = id, .data = {'d', 0xFF}});
        message[16 + 147] = 3; // its type
        return message;
    }

    std::set<std::string> sequences() const {
        std::set<std::string> all;
        const std::string text = access(messages_.c_str(), F_OK) == 0 ? readFile(messages_) : "";
        const std::string name = ".1.3.6.1.4.1.32473.1.1.6.0 = Gauge32: ";
        for (size_t at = 0; (at = text.find(name, at)) != std::string::npos;) {
            at += name.size();
            all.insert(text.substr(at, text.find_first_of("\t\n", at) - at));
        }
        return all;
    }

    std::string snmp_ = "snmp:127.0.0.1:" + portText_;
};

TEST_F(TrapsTest, LoseNoErrorWhenTheReceiverIsKilled) {
    const size_t each = 30;
    const auto all = static_cast<size_t>(rounds() + 1) * each;
    errors(1, static_cast<U32_t>(all));
    startTraps();
    const auto running = bridge(snmp_, {"--rate", "0"});
    for (int round = 0; round < rounds(); ++round) {
        const size_t wanted = static_cast<size_t>(round) * each + 5;
        requireSoon([&] { return sequences().size() >= wanted; }, "some notifications");
        kill();
        startTraps();
    }
    requireSoon([&] { return sequences().size() == all; }, "all notifications");
}

TEST_F(TrapsTest, SayWhatTheEventSays) {
    errors(7, 7);
    startTraps();
    EXPECT_EQ(bridge(snmp_)->wait(), exitedWith(0));
    const std::string text = readFile(messages_);
    for (const char* part :
         {".1.3.6.1.6.3.1.1.4.1.0 = OID: .1.3.6.1.4.1.32473.1.0.1", ".1.1.1.0 = STRING: \"ENC-A\"",
          ".1.1.2.0 = STRING: \"BLADE-1\"", ".1.1.6.0 = Gauge32: 7", ".1.1.9.0 = INTEGER: 3",
          ".1.1.13.0 = Hex-STRING: 64 FF"}) {
        EXPECT_THAT(text, HasSubstr(part));
    }
}

TEST_F(TrapsTest, AreErrorsAndWarningsOnly) {
    errors(1, 2);
    file(1, 9); // the rest is information
    startTraps();
    EXPECT_EQ(bridge(snmp_)->wait(), exitedWith(0));
    EXPECT_EQ(sequences(), (std::set<std::string>{"1", "2"}));
}

TEST_F(TrapsTest, AboveTheRateAreCountedAndTheNumberIsTold) {
    errors(1, 50);
    startTraps();
    EXPECT_EQ(bridge(snmp_, {"--once", "--rate", "10", "--enterprise", "4711"})->wait(),
              exitedWith(0));
    const std::string text = readFile(messages_);
    EXPECT_THAT(text, HasSubstr(".1.3.6.1.4.1.4711.1.0.3"));
    EXPECT_THAT(text, HasSubstr(".1.3.6.1.4.1.4711.1.1.16.0 = Gauge32: 40"));
    EXPECT_EQ(readFile(cursorPath_).substr(0, 11), "evbridge 1\n");
}

TEST_F(TrapsTest, AboveTheRateAreToldAfterAnEndTooThatCameBefore) {
    errors(1, 50);
    startTraps();
    const auto running = bridge(snmp_, {"--rate", "10"});
    waitForFile(cursorPath_);
    running->signal(SIGKILL);
    running->wait();
    EXPECT_THAT(readFile(cursorPath_), HasSubstr("evbridge 1 suppressed 40\n"));
    EXPECT_EQ(bridge(snmp_)->wait(), exitedWith(0));
    EXPECT_THAT(readFile(messages_), HasSubstr(".1.3.6.1.4.1.32473.1.1.16.0 = Gauge32: 40"));
    EXPECT_EQ(readFile(cursorPath_).substr(0, 11), "evbridge 1\n");
}

} // namespace
