/** Who may come through the gate, and for which enclosures it speaks. */
#include "gate_fixture.h"

#include <gmock/gmock.h>

using namespace support;
using testing::HasSubstr;

namespace {

TEST_F(GateTest, ASiteOfAnotherAuthorityIsRefused) {
    const Authority other(directory_.file("other"));
    start();
    startArchiveEnd();
    site_ = other.issue("site");
    startSiteEnd();
    expectRefused();
    EXPECT_THAT(archiveEnd_->waitForOutput("no TLS link"), HasSubstr("certificate"));
}

TEST_F(GateTest, AnArchiveOfAnotherAuthorityGetsNothing) {
    const Authority other(directory_.file("other"));
    start();
    archive_ = other.issue("archive");
    startArchiveEnd();
    startSiteEnd();
    expectRefused();
    EXPECT_THAT(siteEnd_->waitForOutput("no TLS link"), HasSubstr("certificate"));
}

TEST_F(GateTest, AnArchiveOfAnotherNameGetsNothing) {
    start();
    archive_ = authority_.issue("somebody");
    startArchiveEnd();
    startSiteEnd();
    expectRefused();
    EXPECT_THAT(siteEnd_->waitForOutput("no TLS link"), HasSubstr("ostname mismatch"));
}

TEST_F(GateTest, AnExpiredCertificateIsRefused) {
    start();
    startArchiveEnd();
    site_ = authority_.issue("late", -1);
    startSiteEnd();
    siteEnd_->waitForOutput("the certificate is no longer valid");
    expectRefused();
    EXPECT_THAT(archiveEnd_->waitForOutput("no TLS link"), HasSubstr("expired"));
}

TEST_F(GateTest, ACertificateThatTheMapDoesNotNameIsRefused) {
    writeMap("DNS:another.example ENC-A\n");
    startAll();
    expectRefused();
    archiveEnd_->waitForOutput("certificate DNS:site.example may speak for no enclosure");
}

TEST_F(GateTest, AStatusRequestOfAnotherEnclosureIsRefused) {
    startAll();
    const LogName foreign{.enclosure = "ENC-B"};
    BladeLink link(sitePort_);
    link.send(statusOf(event(1, foreign)));
    EXPECT_TRUE(link.isClosed());
    archiveEnd_->waitForOutput("may not speak for enclosure 'ENC-B', closed");
    EXPECT_TRUE(archived(foreign).empty());
}

TEST_F(GateTest, AnEventOfAnotherEnclosureIsRefusedAndThoseBeforeItAreKept) {
    startAll();
    const LogName foreign{.enclosure = "ENC-B"};
    {
        BladeLink link(sitePort_);
        claim(link, event(1));
        link.send(events(1, 5) + eventMessage(event(1, foreign)) + events(6, 7));
        EXPECT_TRUE(link.isClosed());
    }
    archiveEnd_->waitForOutput("may not speak for enclosure 'ENC-B', closed");
    EXPECT_TRUE(waitUntil([this] { return archived().size() == 5; }));
    stopAll();
    EXPECT_EQ(archived().size(), 5U);
    EXPECT_TRUE(archived(foreign).empty());
}

TEST_F(GateTest, AnInquiryAboutAnEnclosureThatMayNotBeAskedAboutFindsNothing) {
    startAll();
    const LogName foreign{.enclosure = "ENC-B"};
    {
        BladeLink direct(port_);
        claim(direct, event(1, foreign));
        direct.send(events(1, 5, foreign));
        claim(direct, event(1, foreign));
    }
    BladeLink link(sitePort_);
    claim(link, event(1));
    const Bytes denied = link.ask(inquiryMessage(EXACT, foreign, 3, 9));
    EXPECT_EQ(get32(denied, 8), 2U);
    EXPECT_EQ(get32(denied, 12), 9U);
    EXPECT_EQ(get32(denied, 16 + 136), 3U);
    writeMap("DNS:site.example ENC-A ask:ENC-*\n");
    archiveEnd_->signal(SIGHUP);
    archiveEnd_->waitForOutput("read again");
    const Bytes found = link.ask(inquiryMessage(EXACT, foreign, 3, 10));
    EXPECT_EQ(Bytes(found.begin() + 16, found.end()), eventBody(event(3, foreign)));
}

TEST_F(GateTest, AMapReadAgainEndsLinksThatItNoLongerAllows) {
    startAll();
    BladeLink link(sitePort_);
    claim(link, event(1));
    writeMap("DNS:site.example\n");
    archiveEnd_->signal(SIGHUP);
    EXPECT_THAT(archiveEnd_->waitForOutput("goes on with the files that it had"),
                HasSubstr("line 1: DNS:site.example speaks for no enclosure"));
    EXPECT_EQ(claim(link, event(1)), NOTHING_YET);
    writeMap("DNS:another.example ENC-A\n");
    archiveEnd_->signal(SIGHUP);
    EXPECT_TRUE(link.isClosed());
}

TEST_F(GateTest, AnAuthorityThatIsTakenOutEndsTheLinksOfItsCertificates) {
    const Authority other(directory_.file("other"));
    const std::string both = readFile(authority_.path()) + readFile(other.path());
    const std::string believed = directory_.file("believed.pem");
    writeFile(believed, both);
    start();
    archiveEnd_ = startEnd("archive", archivePort_, port_, archive_, believed,
                           {"--map", directory_.file("map")});
    site_ = other.issue("site");
    startSiteEnd();
    BladeLink link(sitePort_);
    claim(link, event(1));
    archiveEnd_->signal(SIGHUP);
    archiveEnd_->waitForOutput("read again");
    EXPECT_EQ(claim(link, event(1)), NOTHING_YET) << "both are believed still";
    writeFile(believed, readFile(authority_.path()));
    archiveEnd_->signal(SIGHUP);
    EXPECT_TRUE(link.isClosed());
    archiveEnd_->waitForOutput("certificate DNS:site.example is no longer believed: ");
    expectRefused();
}

TEST_F(GateTest, AnArchiveThatIsNoLongerBelievedLosesItsLinks) {
    const Authority other(directory_.file("other"));
    startAll();
    BladeLink link(sitePort_);
    claim(link, event(1));
    writeFile(authority_.path(), readFile(other.path()));
    siteEnd_->signal(SIGHUP);
    EXPECT_TRUE(link.isClosed());
    siteEnd_->waitForOutput("certificate DNS:archive.example is no longer believed: ");
}

TEST_F(GateTest, ALinkEndsWithTheCertificateThatItStandsOn) {
    start();
    writeMap(
        "CN:short2 ENC-A\nCN:short4 ENC-A\nCN:short8 ENC-A\nCN:short16 ENC-A\nCN:short32 ENC-A\n");
    startArchiveEnd();
    // On a slow machine the certificate may be gone before the link stands.
    for (int seconds = 2; seconds < 64; seconds *= 2) {
        site_ = authority_.issueFor("short" + std::to_string(seconds), seconds);
        siteEnd_.reset();
        startSiteEnd();
        const BladeLink link(sitePort_);
        const auto isSaid = [this](const char* what) {
            return archiveEnd_->output().find(what) != std::string::npos;
        };
        ASSERT_TRUE(
            waitUntil([&] { return isSaid("has ended, closed") || isSaid("has expired"); }));
        if (isSaid("has ended, closed")) {
            return;
        }
        archiveEnd_.reset();
        startArchiveEnd();
    }
    FAIL() << "no certificate was good for long enough";
}

TEST_F(GateTest, ACertificateReadAgainIsTheOneThatIsShown) {
    startAll();
    const Authority other(directory_.file("other"));
    const Identity fresh = other.issue("site");
    // Both ends change their authority, one after the other.
    BladeLink link(sitePort_);
    claim(link, event(1));
    writeFile(authority_.path(), readFile(other.path()));
    writeFile(site_.certificate, readFile(fresh.certificate));
    writeFile(site_.key, readFile(fresh.key));
    archiveEnd_->signal(SIGHUP);
    archiveEnd_->waitForOutput("read again");
    {
        BladeLink refused(sitePort_);
        EXPECT_TRUE(refused.isClosed());
    }
    const Identity archive = other.issue("archive");
    writeFile(archive_.certificate, readFile(archive.certificate));
    writeFile(archive_.key, readFile(archive.key));
    archiveEnd_->signal(SIGHUP);
    siteEnd_->signal(SIGHUP);
    siteEnd_->waitForOutput("read again");
    EXPECT_TRUE(waitUntil([this] {
        const std::string output = archiveEnd_->output();
        return output.find("read again", output.find("read again") + 1) != std::string::npos;
    }));
    BladeLink later(sitePort_);
    EXPECT_EQ(claim(later, event(1)), NOTHING_YET);
    stopAll();
}

} // namespace
