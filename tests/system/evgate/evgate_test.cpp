/** What goes through the gate, and what may happen to it on the way. */
#include "gate.h"
#include "gate_fixture.h"
#include "recording_relay.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cstdlib>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace support;
using testing::HasSubstr;

namespace {

TEST_F(GateTest, EventsOfEverySizeArriveByContentAndAreClaimed) {
    startAll();
    std::map<U32_t, Bytes> expected;
    Bytes all;
    for (U32_t id = 0; id < 400; ++id) {
        const size_t size = id == 399 ? 3848 : (id * 37) % 3849;
        const EventFields fields{.id = id, .data = Bytes(size, static_cast<U8_t>(id))};
        expected[id] = eventBody(fields);
        all = std::move(all) + eventMessage(fields);
    }
    {
        BladeLink link(sitePort_);
        EXPECT_EQ(claim(link, event(0)), NOTHING_YET);
        link.send(all);
        EXPECT_EQ(claim(link, {.id = 0, .data = {}}), (Claim{398, 0}));
    }
    stopAll();
    EXPECT_TRUE(archived() == expected);
}

TEST_F(GateTest, EveryAnswerArrivesInOneSegmentOrAsOneThatFits) {
    startAll({"--segment-size", "1200"});
    BladeLink link(sitePort_);
    claim(link, event(0));
    const LogName log;
    for (U32_t id = 0; id < 40; ++id) {
        link.send(eventMessage({.id = id, .data = Bytes(id * 90, 0xD7)}));
    }
    claim(link, event(0));
    int whole = 0;
    for (U32_t id = 0; id < 40; ++id) {
        // receive() throws at a body that is not there as a whole.
        const Bytes answer = link.ask(inquiryMessage(EXACT, log, id, 100 + id));
        EXPECT_EQ(get32(answer, 12), 100 + id);
        if (get32(answer, 8) == 1) {
            EXPECT_EQ(Bytes(answer.begin() + 16, answer.end()),
                      eventBody({.id = id, .data = Bytes(id * 90, 0xD7)}));
            ++whole;
        } else {
            EXPECT_EQ(get32(answer, 8), 3U);
            EXPECT_EQ(answer.size(), 168U);
            EXPECT_EQ(getText(answer, 16), log.enclosure);
            EXPECT_EQ(get32(answer, 16 + 136), id);
        }
    }
    EXPECT_GE(whole, 10);
    EXPECT_LE(whole, 12);
    EXPECT_THAT(siteEnd_->output(), HasSubstr("would arrive in pieces"));
}

TEST_F(GateTest, ABladeThatCanHelpItselfIsToldThatThereIsNoneInsteadOfATooLongAnswer) {
    startAll({"--segment-size", "1200"});
    BladeLink link(sitePort_);
    claim(link, event(0));
    link.send(eventMessage({.id = 0, .data = {}}) + eventMessage({.id = 1, .data = Bytes(3000)}));
    claim(link, {.id = 0, .data = {}});
    const Bytes answer = link.ask(inquiryMessage(NEXT, {}, 0, 5));
    EXPECT_EQ(get32(answer, 8), 2U);
    EXPECT_EQ(get32(answer, 12), 5U);
    EXPECT_EQ(get32(answer, 16 + 136), 0U) << "the id that was asked with";
    // About another log only the archive can help.
    BladeLink other(sitePort_);
    claim(other, {.log = {.blade = "BLADE-2"}, .id = 0});
    EXPECT_EQ(get32(other.ask(inquiryMessage(NEXT, {}, 0, 6)), 8), 3U);
}

TEST_F(GateTest, WhoeverReadsThatItListensCanConnect) {
    evgate::Options options;
    options.listen = {asio::ip::address_v4::loopback(), sitePort_};
    options.files = {.certificate = site_.certificate, .key = site_.key, .ca = authority_.path()};
    testing::internal::CaptureStdout();
    std::string lines;
    const evgate::Gate gate(options,
                            [&](auto /*level*/, const std::string& line) { lines += line; });
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "listening on 127.0.0.1:" + std::to_string(sitePort_) + "\n");
    EXPECT_NO_THROW(BladeLink link(sitePort_));
    EXPECT_THAT(lines, HasSubstr("more days"));
}

// --- What else comes to the door -----------------------------------------------------------------

TEST_F(GateTest, PlainTextAtTheTlsPortIsRefusedAndOthersGoOn) {
    startAll();
    BladeLink good(sitePort_);
    claim(good, event(1));
    BladeLink plain(archivePort_);
    plain.send(statusOf(event(1)));
    EXPECT_TRUE(
        waitUntil([&] { return archiveEnd_->output().find("no TLS link") != std::string::npos; }));
    EXPECT_EQ(claim(good, event(1)), NOTHING_YET);
}

TEST_F(GateTest, OlderVersionsThanTls13AreRefused) {
    start();
    startArchiveEnd();
    const std::string ask = "openssl s_client -connect 127.0.0.1:" + std::to_string(archivePort_) +
                            " -CAfile " + authority_.path() + " -cert " + site_.certificate +
                            " -key " + site_.key + " </dev/null >/dev/null 2>&1 ";
    EXPECT_EQ(std::system((ask + "-tls1_3").c_str()), 0); // NOLINT(concurrency-mt-unsafe)
    EXPECT_NE(std::system((ask + "-tls1_2").c_str()), 0); // NOLINT(concurrency-mt-unsafe)
    EXPECT_THAT(archiveEnd_->waitForOutput("no TLS link"), HasSubstr("protocol"));
}

TEST_F(GateTest, AClientWithoutACertificateIsRefused) {
    start();
    startArchiveEnd();
    const std::string ask = "openssl s_client -connect 127.0.0.1:" + std::to_string(archivePort_) +
                            " -CAfile " + authority_.path() + " -tls1_3 </dev/null >/dev/null 2>&1";
    EXPECT_EQ(std::system(ask.c_str()) & 0x7F, 0); // NOLINT(concurrency-mt-unsafe)
    EXPECT_THAT(archiveEnd_->waitForOutput("no TLS link"), HasSubstr("did not return"));
}

TEST_F(GateTest, WhoSaysNothingIsClosedInTime) {
    start();
    startArchiveEnd({"--wait", "1"});
    BladeLink silent(archivePort_);
    EXPECT_TRUE(silent.isClosed());
    archiveEnd_->waitForOutput("the TLS handshake takes too long");
}

TEST_F(GateTest, AddressesThatAreNotAllowedAndLinksAboveTheLimitAreClosed) {
    start();
    startArchiveEnd();
    startSiteEnd({"--connection-limit", "1", "--allow", "127.0.0.0/8"});
    BladeLink first(sitePort_);
    claim(first, event(1));
    BladeLink second(sitePort_);
    EXPECT_TRUE(second.isClosed());
    siteEnd_->waitForOutput("there are 1 links already");
    siteEnd_->signal(SIGTERM);
    siteEnd_->wait();
    startSiteEnd({"--allow", "10.0.0.0/8"});
    BladeLink third(sitePort_);
    EXPECT_TRUE(third.isClosed());
    siteEnd_->waitForOutput("its address is not allowed");
}

// --- Trouble on the way --------------------------------------------------------------------------

TEST_F(GateTest, NothingButTlsRecordsLeavesTheSite) {
    RecordingRelay wire(archivePort_);
    outerPort_ = wire.port();
    startAll();
    const std::string secret = "the battery of node 7 is low";
    {
        BladeLink link(sitePort_);
        claim(link, event(0));
        const Bytes data(secret.begin(), secret.end());
        link.send(eventMessage({.id = 1, .data = data}));
        claim(link, event(0));
        EXPECT_EQ(get32(link.ask(inquiryMessage(EXACT, {}, 1, 3)), 8), 1U);
    }
    stopAll();
    for (const Bytes& bytes : {wire.sent(), wire.returned()}) {
        EXPECT_EQ(std::search(bytes.begin(), bytes.end(), secret.begin(), secret.end()),
                  bytes.end());
        const std::string name = "BLADE-1";
        EXPECT_EQ(std::search(bytes.begin(), bytes.end(), name.begin(), name.end()), bytes.end());
        // One message of the handshake is readable, then perhaps a change of ciphers for old
        // proxies; everything else is encrypted.
        size_t records = 0;
        size_t encrypted = 0;
        size_t at = 0;
        for (; at + 5 <= bytes.size(); at += 5 + get16(bytes, at + 3)) {
            const U8_t type = bytes[at];
            EXPECT_EQ(bytes[at + 1], 3) << at;
            if (encrypted > 0 || records > 1) {
                EXPECT_EQ(type, 0x17) << "record " << records;
            } else {
                EXPECT_TRUE(type == (records == 0 ? 0x16 : 0x14) || type == 0x17) << records;
            }
            encrypted += type == 0x17 ? 1 : 0;
            ++records;
        }
        EXPECT_EQ(at, bytes.size());
        EXPECT_GE(encrypted, 4U);
    }
}

TEST_F(GateTest, ACutWithinAnAnswerGivesTheBladeNoPartOfItAndTheNextLinkWorks) {
    RecordingRelay wire(archivePort_);
    outerPort_ = wire.port();
    startAll();
    {
        BladeLink link(sitePort_);
        claim(link, event(0));
        link.send(eventMessage({.id = 1, .data = Bytes(3000, 7)}));
        claim(link, event(0));
        wire.cutAfterReturned(1500);
        link.send(inquiryMessage(EXACT, {}, 1, 3));
        EXPECT_TRUE(link.isClosed()) << "not a byte of the answer";
        siteEnd_->waitForOutput("cut without an end");
    }
    wire.cutAfterReturned(SIZE_MAX);
    BladeLink again(sitePort_);
    claim(again, {.id = 1, .data = Bytes(3000, 7)});
    EXPECT_EQ(get32(again.ask(inquiryMessage(EXACT, {}, 1, 3)), 8), 1U);
}

TEST_F(GateTest, ABladeThatReadsSlowlyGetsAllItsAnswersWholeAndHoldsNobodyUp) {
    startAll();
    BladeLink slow(sitePort_);
    claim(slow, event(0));
    slow.send(eventMessage({.id = 0, .data = Bytes(3848, 7)}));
    claim(slow, event(0));
    constexpr U32_t ASKED = 200;
    Bytes inquiries;
    for (U32_t i = 0; i < ASKED; ++i) {
        inquiries = std::move(inquiries) + inquiryMessage(EXACT, {}, 0, i);
    }
    slow.send(inquiries);
    BladeLink other(sitePort_);
    EXPECT_EQ(claim(other, {.log = {.blade = "BLADE-2"}, .id = 1}), NOTHING_YET);
    for (U32_t i = 0; i < ASKED; ++i) {
        const Bytes answer = slow.receive();
        ASSERT_EQ(answer.size(), 16 + 152 + 3848U);
        ASSERT_EQ(get32(answer, 12), i);
    }
}

TEST_F(GateTest, BladesAreClosedWhileTheOtherEndOrTheArchiverIsAwayAndServedOnceItIsBack) {
    startAll();
    BladeLink link(sitePort_);
    claim(link, event(1));
    archiver_->signal(SIGKILL);
    archiver_->wait();
    EXPECT_TRUE(link.isClosed());
    {
        BladeLink meanwhile(sitePort_);
        EXPECT_TRUE(meanwhile.isClosed());
    }
    archiveEnd_->waitForOutput("cannot be reached");
    archiveEnd_->signal(SIGKILL);
    archiveEnd_->wait();
    {
        BladeLink meanwhile(sitePort_);
        EXPECT_TRUE(meanwhile.isClosed());
    }
    siteEnd_->waitForOutput("cannot be reached");
    start();
    startArchiveEnd();
    BladeLink later(sitePort_);
    EXPECT_EQ(claim(later, event(1)), NOTHING_YET);
    later.send(events(1, 9));
    EXPECT_EQ(claim(later, event(1)), (Claim{8, 0}));
}

TEST_F(GateTest, AStreamWithoutBordersReachesTheArchiverAsSuchAndEndsTheLink) {
    startAll();
    {
        BladeLink link(sitePort_);
        claim(link, event(1));
        // The last byte of an event comes twice.
        Bytes broken = events(1, 5);
        broken.push_back(broken.back());
        link.send(broken + events(6, 8));
        EXPECT_TRUE(link.isClosed());
    }
    archiveEnd_->waitForOutput("the stream has lost its message borders");
    archiver_->waitForOutput("event with id 5 given up");
    stopAll();
    EXPECT_EQ(archived().size(), 4U);
}

/** A listener that the test serves itself, in the archiver's place. */
class Listener {
  public:
    Listener() {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        EXPECT_EQ(bind(descriptor_, reinterpret_cast<sockaddr*>(&address), length), 0);
        EXPECT_EQ(listen(descriptor_, 4), 0);
        EXPECT_EQ(getsockname(descriptor_, reinterpret_cast<sockaddr*>(&address), &length), 0);
        port = ntohs(address.sin_port);
    }
    ~Listener() { close(descriptor_); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    int accept() const { return accept4(descriptor_, nullptr, nullptr, SOCK_CLOEXEC); }

    U16_t port = 0;

  private:
    int descriptor_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

Bytes readToEnd(int descriptor) {
    Bytes all;
    U8_t bytes[4096];
    ssize_t size = 0;
    while ((size = recv(descriptor, bytes, sizeof(bytes), 0)) > 0) {
        all.insert(all.end(), bytes, bytes + size);
    }
    return all;
}

TEST_F(GateTest, TheEndOfEitherStreamIsPassedOnBehindItsLastByte) {
    const Listener archiver;
    port_ = archiver.port;
    startArchiveEnd();
    startSiteEnd();
    BladeLink link(sitePort_);
    const Bytes request = statusOf(event(1));
    link.send(request);
    link.finishSending();
    const int taken = archiver.accept();
    EXPECT_EQ(readToEnd(taken), request);
    // The other direction is still open.
    Bytes answer = requestHeader(176, 6, 1000) + statusBody({}, 1, {});
    answer[7] = 2; // a response
    EXPECT_EQ(send(taken, answer.data(), answer.size(), 0), static_cast<ssize_t>(answer.size()));
    close(taken);
    EXPECT_EQ(link.receive(), answer);
    EXPECT_TRUE(link.isClosed());
}

TEST_F(GateTest, WhatIsNoAnswerNeverReachesABlade) {
    const Listener archiver;
    port_ = archiver.port;
    startArchiveEnd();
    startSiteEnd();
    BladeLink link(sitePort_);
    link.send(statusOf(event(1)));
    const int taken = archiver.accept();
    const Bytes nonsense(5000, 0x41);
    EXPECT_EQ(send(taken, nonsense.data(), nonsense.size(), 0), 5000);
    EXPECT_TRUE(link.isClosed());
    siteEnd_->waitForOutput("what comes back is no answer (header version is not 1), closed");
    close(taken);
}

TEST_F(GateTest, AFileThatCannotBeUsedIsNamedAndNothingIsServed) {
    const auto refusal = [this](const Identity& identity, const std::string& ca) {
        std::vector<std::string> all = {"site", "--listen", "127.0.0.1:0", "--to", "127.0.0.1:9"};
        const auto files = identity.options(ca);
        all.insert(all.end(), files.begin(), files.end());
        Process end(commandOf("evgate", all),
                    directory_.file("refused" + std::to_string(++starts_)));
        EXPECT_EQ(end.wait(), exitedWith(2));
        EXPECT_EQ(end.output(), "");
        return end.errorOutput();
    };
    EXPECT_THAT(refusal({"/nowhere.pem", site_.key}, authority_.path()), HasSubstr("/nowhere.pem"));
    EXPECT_THAT(refusal({site_.certificate, archive_.key}, authority_.path()),
                HasSubstr("key values mismatch"));
    EXPECT_THAT(refusal(site_, site_.key), HasSubstr(site_.key));
}

} // namespace
