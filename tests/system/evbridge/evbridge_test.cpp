/** Events of archives and logs on their way to receivers that come and go. */
#include "bridge_fixture.h"
#include "log_image.h"

#include <gmock/gmock.h>

#include <arpa/inet.h>
#include <csignal>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

using namespace support;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

TEST_F(BridgeTest, EachEventOfAnArchiveIsHandedOnOnceAndInOrder) {
    file(1, 900);
    const Datagrams receiver(socketPath_);
    const auto first = bridge(syslog_);
    EXPECT_EQ(ids(receiver, 900), range(1, 900));
    EXPECT_EQ(first->wait(), exitedWith(0));
    file(1, 905);
    const auto second = bridge(syslog_);
    EXPECT_EQ(second->wait(), exitedWith(0));
    EXPECT_EQ(ids(receiver, 5), range(901, 905));
    EXPECT_EQ(receiver.next(std::chrono::milliseconds(0)), "");
    EXPECT_EQ(readFile(cursorPath_), "evbridge 1\n1-905 ENC-A/BLADE-1/1/1/1\n");
}

TEST_F(BridgeTest, WhatComesLateIsHandedOnToo) {
    start();
    {
        BladeLink link(port_);
        claim(link, event(3)); // has older ones
        link.send(events(10, 20));
        claim(link, event(3));
    }
    const Datagrams receiver(socketPath_);
    EXPECT_EQ(bridge(syslog_)->wait(), exitedWith(0));
    EXPECT_EQ(ids(receiver, 11), range(10, 20));
    file(3, 20);
    EXPECT_EQ(bridge(syslog_)->wait(), exitedWith(0));
    EXPECT_EQ(ids(receiver, 7), range(3, 9));
}

TEST_F(BridgeTest, AMessageSaysWhatTheEventSaysAndWhereItIsFrom) {
    start();
    const std::string text = "fan \"2\" slow";
    {
        BladeLink link(port_);
        claim(link, event(1));
        link.send(eventMessage({.id = 1, .data = Bytes(text.begin(), text.end()), .source = 10}));
        claim(link, event(1));
    }
    const Datagrams receiver(socketPath_);
    EXPECT_EQ(bridge(syslog_)->wait(), exitedWith(0));
    const std::string message = receiver.next();
    EXPECT_EQ(message,
              "<134>1 1970-01-01T00:16:40Z BLADE-1 emp vpi8p EV3 [event@32473 enclosure=\"ENC-A\" "
              "blade=\"BLADE-1\" slot=\"1\" instance=\"1\" generation=\"1\" sequence=\"1\" "
              "source=\"vpi8p\" type=\"information\" category=\"management\" id=\"3\" "
              "id_version=\"1\" data=\"66616e2022322220736c6f77\"] fan \"2\" slow");
}

TEST_F(BridgeTest, NamesWithSignsOfTheFormCanBeReadAgain) {
    const LogName log = {.enclosure = "A]B", .blade = "q\"c\\", .slot = 2, .instance = 3};
    start();
    {
        BladeLink link(port_);
        claim(link, event(1, log));
        link.send(events(1, 1, log));
        claim(link, event(1, log));
    }
    const Datagrams receiver(socketPath_);
    EXPECT_EQ(bridge(syslog_, {"--once", "--enterprise", "4711"})->wait(), exitedWith(0));
    // The text of the blade has its backslash as \x5C, like all texts of blades.
    EXPECT_THAT(receiver.next(), HasSubstr("[event@4711 enclosure=\"A\\]B\" "
                                           "blade=\"q\\\"c\\\\x5C\" slot=\"2\""));
}

TEST_F(BridgeTest, DataIsCutAt1024BytesWhichIsSaid) {
    start();
    {
        BladeLink link(port_);
        claim(link, event(1));
        for (U32_t id = 1; id <= 2; ++id) {
            link.send(eventMessage({.id = id, .data = Bytes(1023 + id, 0xA5)}));
        }
        claim(link, event(1));
    }
    const Datagrams receiver(socketPath_);
    EXPECT_EQ(bridge(syslog_)->wait(), exitedWith(0));
    std::string whole;
    for (int i = 0; i < 1024; ++i) {
        whole += "a5";
    }
    EXPECT_THAT(receiver.next(), HasSubstr(" data=\"" + whole + "\"] "));
    EXPECT_THAT(receiver.next(), HasSubstr(" data=\"" + whole + "\" cut=\"1\"] "));
}

TEST_F(BridgeTest, ASecondBridgeOnOneCursorIsRefused) {
    file(1, 3);
    const Datagrams receiver(socketPath_);
    const auto first = bridge(syslog_, {});
    EXPECT_EQ(ids(receiver, 3), range(1, 3));
    const auto second = bridge(syslog_);
    EXPECT_EQ(second->wait(), exitedWith(2));
    EXPECT_EQ(second->errorOutput(),
              "evbridge: " + cursorPath_ + ": another evbridge works with this cursor\n");
    first->signal(SIGKILL);
    first->wait();
    EXPECT_EQ(bridge(syslog_)->wait(), exitedWith(0));
}

TEST_F(BridgeTest, TheJournalGetsFields) {
    start();
    const Bytes data = {'a', 0, '\n', 0xFF};
    {
        BladeLink link(port_);
        claim(link, event(1));
        link.send(eventMessage({.id = 7, .data = data}));
        claim(link, event(1));
    }
    const Datagrams receiver(socketPath_);
    EXPECT_EQ(bridge("journal:" + socketPath_)->wait(), exitedWith(0));
    const std::string message = receiver.next();
    const auto field = [&message](const std::string& name) {
        const size_t at = message.find("\n" + name + "\n");
        if (at == std::string::npos) {
            return std::string("missing");
        }
        const size_t length = at + name.size() + 2;
        return message.substr(length + 8, static_cast<U8_t>(message[length]));
    };
    EXPECT_EQ(message.substr(0, 8), "MESSAGE\n");
    EXPECT_EQ(field("EMP_SEQUENCE"), "7");
    EXPECT_EQ(field("EMP_ENCLOSURE"), "ENC-A");
    EXPECT_EQ(field("EMP_BLADE"), "BLADE-1");
    EXPECT_EQ(field("PRIORITY"), "6");
    EXPECT_EQ(field("EMP_DATA"), std::string(data.begin(), data.end()));
}

TEST_F(BridgeTest, OnlyWhatTheFiltersWantIsHandedOn) {
    file(1, 50);
    const Datagrams receiver(socketPath_);
    EXPECT_EQ(bridge(syslog_, {"--once", "--seq", "20:22"})->wait(), exitedWith(0));
    EXPECT_THAT(ids(receiver, 3), ElementsAre(20, 21, 22));
    EXPECT_EQ(receiver.next(std::chrono::milliseconds(0)), "");
}

TEST_F(BridgeTest, WhatIsThereCanBeLeftOut) {
    file(1, 50);
    const Datagrams receiver(socketPath_);
    EXPECT_EQ(bridge(syslog_, {"--once", "--skip-old"})->wait(), exitedWith(0));
    file(1, 52);
    EXPECT_EQ(bridge(syslog_, {"--once", "--skip-old"})->wait(), exitedWith(0));
    EXPECT_THAT(ids(receiver, 2), ElementsAre(51, 52));
    EXPECT_EQ(receiver.next(std::chrono::milliseconds(0)), "");
}

TEST_F(BridgeTest, WhatIsLeftOutIsSettledByTheFirstStart) {
    start();
    const Datagrams receiver(socketPath_);
    EXPECT_EQ(bridge(syslog_, {"--once", "--skip-old"})->wait(), exitedWith(0));
    file(1, 2);
    EXPECT_EQ(bridge(syslog_, {"--once", "--skip-old"})->wait(), exitedWith(0));
    EXPECT_THAT(ids(receiver, 2), ElementsAre(1, 2));
}

TEST_F(BridgeTest, AReceiverThatIsAwayMissesNothing) {
    file(1, 20);
    const auto running = bridge(syslog_, {});
    running->waitForOutput("events wait, tried again");
    {
        const Datagrams receiver(socketPath_);
        EXPECT_EQ(ids(receiver, 20), range(1, 20));
        running->waitForOutput("goes on");
    }
    file(1, 40);
    EXPECT_TRUE(waitUntil([&] {
        const std::string output = running->output();
        return output.find("tried again", output.find("goes on")) != std::string::npos;
    }));
    const Datagrams again(socketPath_);
    EXPECT_EQ(ids(again, 20), range(21, 40));
    running->signal(SIGTERM);
    EXPECT_EQ(running->wait(), exitedWith(0));
    EXPECT_EQ(running->errorOutput(), "");
}

TEST_F(BridgeTest, ABridgeKilledAgainAndAgainHandsEverythingOn) {
    constexpr U32_t LAST = 3000;
    file(1, LAST);
    const Datagrams receiver(socketPath_);
    std::vector<U32_t> came;
    for (const size_t upTo : {10U, 499U, 300U, 600U}) {
        const auto running = bridge(syslog_);
        const auto some = ids(receiver, upTo);
        running->signal(SIGKILL);
        running->wait();
        came.insert(came.end(), some.begin(), some.end());
        while (true) { // what its system had already
            const std::string message = receiver.next(std::chrono::milliseconds(0));
            if (message.empty()) {
                break;
            }
            came.push_back(sequenceOf(message));
        }
    }
    const auto running = bridge(syslog_);
    while (came.empty() || came.back() < LAST) {
        const auto more = ids(receiver, 1);
        ASSERT_FALSE(more.empty());
        came.push_back(more.front());
    }
    EXPECT_EQ(running->wait(), exitedWith(0));
    expectAllInOrder(came, LAST);
    EXPECT_LT(came.size(), LAST + 5 * 500U) << "no more than a batch comes again";
}

/** Takes one TCP connection and reads some of it. */
class TcpReceiver {
  public:
    explicit TcpReceiver(U16_t port) {
        const int one = 1;
        setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
        // What its system has is confirmed: less than a batch, so that nothing is until all is
        // read.
        const int little = 4096;
        setsockopt(listener_, SOL_SOCKET, SO_RCVBUF, &little, sizeof(little));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        EXPECT_EQ(listen(listener_, 1), 0);
        const timeval deadline{DEADLINE.count() / 1000, 0}; // of accept() too
        setsockopt(listener_, SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof(deadline));
    }
    ~TcpReceiver() {
        close(taken_);
        close(listener_);
    }
    TcpReceiver(const TcpReceiver&) = delete;
    TcpReceiver& operator=(const TcpReceiver&) = delete;

    /** The next message: "LENGTH MESSAGE". Throws at the end of the stream. */
    std::string next() { return bytes(std::stoul(word())); }

    /** The next frame of RELP: "NUMBER COMMAND LENGTH DATA". @return number and command */
    std::string nextFrame() {
        const std::string number = word();
        const std::string command = word();
        const size_t length = std::stoul(word());
        bytes(length == 0 ? 0 : length + 1); // of nothing the line feed has been taken
        return number + " " + command;
    }

    void answer(const std::string& text) {
        EXPECT_EQ(send(taken_, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    }

  private:
    std::string word() {
        if (taken_ < 0) {
            taken_ = accept(listener_, nullptr, nullptr);
        }
        std::string word;
        for (char letter = take(); letter != ' ' && letter != '\n'; letter = take()) {
            word += letter;
        }
        return word;
    }

    std::string bytes(size_t count) {
        std::string bytes(count, '\0');
        for (char& byte : bytes) {
            byte = take();
        }
        return bytes;
    }

    char take() const {
        char byte = 0;
        if (recv(taken_, &byte, 1, 0) != 1) {
            throw std::runtime_error("the stream has ended");
        }
        return byte;
    }

    int listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int taken_ = -1;
};

TEST_F(BridgeTest, ATcpReceiverThatBreaksOffGetsTheRestWhenItIsBack) {
    constexpr U32_t LAST = 1200;
    file(1, LAST);
    const U16_t port = freePort();
    std::vector<U32_t> came;
    const auto running = bridge("syslog:tcp:127.0.0.1:" + std::to_string(port));
    {
        TcpReceiver receiver(port);
        while (came.size() < 100) {
            came.push_back(sequenceOf(receiver.next()));
        }
    }
    TcpReceiver receiver(port);
    while (came.back() < LAST) {
        came.push_back(sequenceOf(receiver.next()));
    }
    EXPECT_EQ(running->wait(), exitedWith(0));
    expectAllInOrder(came, LAST);
}

TEST_F(BridgeTest, WhatATcpReceiversSystemHasNotAcknowledgedIsNotHandedOn) {
    file(1, 60); // more than the receiver has room for, less than fills the way to it
    const U16_t port = freePort();
    const auto running = bridge("syslog:tcp:127.0.0.1:" + std::to_string(port));
    {
        TcpReceiver receiver(port);
        EXPECT_EQ(sequenceOf(receiver.next()), 1U);
        const auto isHandedOn = [this] {
            return std::filesystem::exists(cursorPath_) &&
                   readFile(cursorPath_).find("1-60 ") != std::string::npos;
        };
        EXPECT_FALSE(waitUntil(isHandedOn, std::chrono::milliseconds(500)));
    }
    TcpReceiver receiver(port);
    EXPECT_EQ(sequenceOf(receiver.next()), 1U) << "all comes again";
}

TEST_F(BridgeTest, WhatARelpReceiverHasNotAnsweredIsNotHandedOn) {
    file(1, 3);
    const U16_t port = freePort();
    const auto running = bridge("syslog:relp:127.0.0.1:" + std::to_string(port));
    const auto takeAll = [](TcpReceiver& receiver) {
        EXPECT_EQ(receiver.nextFrame(), "1 open");
        receiver.answer("1 rsp 6 200 OK\n");
        for (const char* frame : {"2 syslog", "3 syslog", "4 syslog"}) {
            EXPECT_EQ(receiver.nextFrame(), frame);
        }
    };
    {
        TcpReceiver receiver(port);
        takeAll(receiver);
        receiver.answer("2 rsp 6 200 OK\n3 rsp 6 200 OK\n");
    }
    TcpReceiver receiver(port);
    takeAll(receiver);
    receiver.answer("2 rsp 6 200 OK\n4 rsp 6 200 OK\n3 rsp 6 200 OK\n");
    EXPECT_EQ(receiver.nextFrame(), "5 close");
    receiver.answer("5 rsp 0\n0 serverclose 0\n");
    EXPECT_EQ(running->wait(), exitedWith(0));
}

TEST_F(BridgeTest, WhatARelpReceiverRefusesIsSentAgain) {
    file(1, 1);
    const U16_t port = freePort();
    const auto running = bridge("syslog:relp:127.0.0.1:" + std::to_string(port));
    {
        TcpReceiver receiver(port);
        EXPECT_EQ(receiver.nextFrame(), "1 open");
        receiver.answer("1 rsp 6 200 OK\n");
        EXPECT_EQ(receiver.nextFrame(), "2 syslog");
        receiver.answer("2 rsp 8 500 full\n");
        running->waitForOutput("it refuses: 500 full; events wait, tried again");
    }
    TcpReceiver receiver(port);
    EXPECT_EQ(receiver.nextFrame(), "1 open");
}

TEST_F(BridgeTest, ALogFileIsFollowed) {
    from_ = directory_.file("kelta_eventlog");
    test::LogImage log;
    log.firstEntry();
    const auto grow = [&](U32_t id, const std::string& text) {
        log.raw(test::record({.id = id}, text));
        test::LogImage whole = log;
        whole.zerosTo();
        writeFile(from_, whole.bytes);
    };
    grow(1, "the first");
    const Datagrams receiver(socketPath_);
    const auto running = bridge(syslog_, {});
    EXPECT_EQ(sequenceOf(receiver.next()), 0U);
    EXPECT_THAT(receiver.next(), HasSubstr("the first"));
    grow(2, "one more");
    EXPECT_THAT(receiver.next(), HasSubstr("one more"));
    running->signal(SIGTERM);
    EXPECT_EQ(running->wait(), exitedWith(0));
    grow(3, "and another");
    EXPECT_EQ(bridge(syslog_)->wait(), exitedWith(0));
    EXPECT_THAT(receiver.next(), HasSubstr("and another"));
    grow(9, "after a gap");
    EXPECT_EQ(bridge(syslog_)->wait(), exitedWith(0));
    EXPECT_THAT(receiver.next(),
                HasSubstr(" first=\"4\" last=\"8\" count=\"5\"] 5 events overwritten"));
    EXPECT_THAT(receiver.next(), HasSubstr("after a gap"));
    EXPECT_EQ(receiver.next(std::chrono::milliseconds(0)), "");
}

TEST_F(BridgeTest, WhatCannotBeUsedIsNamed) {
    file(1, 2);
    const auto refusal = [this](const std::string& to) {
        const auto process = bridge(to);
        EXPECT_EQ(process->wait(), exitedWith(2));
        return process->errorOutput();
    };
    EXPECT_THAT(refusal("syslog:pipe:x"), HasSubstr("'syslog:pipe:x' is no receiver"));
    EXPECT_THAT(refusal("syslog:tcp:somewhere"), HasSubstr("is no port"));
    writeFile(cursorPath_, "something else\n");
    EXPECT_THAT(refusal(syslog_), HasSubstr("it is no cursor of evbridge"));
    EXPECT_EQ(readFile(cursorPath_), "something else\n");
    writeFile(cursorPath_, "evbridge 1\n9-1 ENC-A/BLADE-1/1/1/1\n");
    EXPECT_THAT(refusal(syslog_), HasSubstr("'9-1' is no run of ids"));
    from_ = "/nowhere";
    EXPECT_THAT(refusal(syslog_), HasSubstr("/nowhere: there is no such file"));
}

} // namespace
