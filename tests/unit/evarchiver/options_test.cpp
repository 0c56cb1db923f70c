#include "options.h"

#include "lines.h"

#include <gtest/gtest.h>

using namespace evarchive;

namespace {

std::variant<Options, int> parse(std::vector<const char*> arguments) {
    arguments.insert(arguments.begin(), "evarchiver");
    return parseOptions(static_cast<int>(arguments.size()), arguments.data());
}

Options parsed(std::vector<const char*> arguments) {
    arguments.insert(arguments.end(), {"--listen", "0", "--db", "x"});
    return std::get<Options>(parse(std::move(arguments)));
}

int status(std::vector<const char*> arguments) {
    return std::get<int>(parse(std::move(arguments)));
}

} // namespace

TEST(Lines, BearTimeAndLevel) {
    EXPECT_EQ(stampedLine(Level::INFO, "text", 0), "1970-01-01T00:00:00Z info: text");
    EXPECT_EQ(stampedLine(Level::NOTICE, "", 1'234'567'890), "2009-02-13T23:31:30Z notice: ");
    EXPECT_EQ(stampedLine(Level::WARNING, "t", 0), "1970-01-01T00:00:00Z warning: t");
    EXPECT_EQ(stampedLine(Level::FAILURE, "t", 0), "1970-01-01T00:00:00Z error: t");
}

TEST(Endpoint, PortAloneMeansEveryAddress) {
    EXPECT_EQ(endpointOf("4711").address().to_string(), "0.0.0.0");
    EXPECT_EQ(endpointOf("4711").port(), 4711);
}

TEST(Endpoint, AddressAndPort) {
    EXPECT_EQ(endpointOf("192.168.0.1:65535").address().to_string(), "192.168.0.1");
    EXPECT_EQ(endpointOf("192.168.0.1:65535").port(), 65535);
    EXPECT_EQ(endpointOf("[::1]:9").address().to_string(), "::1");
}

TEST(Endpoint, AnythingElseIsRefused) {
    for (const char* text :
         {"", ":", "x", "65536", "-1", "1 ", "host:1", "1.2.3:1", "1.2.3.4:", "[::1]", "[::1]:x"}) {
        EXPECT_THROW(endpointOf(text), std::invalid_argument) << text;
    }
}

TEST(CommandLine, NeedsAPlaceToListenAndAnArchive) {
    EXPECT_EQ(status({"--listen", "0"}), 2);
    EXPECT_EQ(status({"--db", "x"}), 2);
    EXPECT_EQ(status({"--listen", "nowhere", "--db", "x"}), 2);
    EXPECT_EQ(status({"--listen", "0", "--db", "x", "--batch", "0"}), 2);
    EXPECT_EQ(status({"--listen", "0", "--db", "x", "--clear", "some"}), 2);
    EXPECT_EQ(status({"--listen", "0", "--db", "x", "--handshakes", "0"}), 2);
    EXPECT_EQ(status({"--listen", "0", "--db", "postgresql://h/d", "--batch-wait", "501"}), 2);
    EXPECT_EQ(status({"--help"}), 0);
    EXPECT_EQ(status({"--version"}), 0);
}

TEST(CommandLine, ClearingNeedsASecondWord) {
    EXPECT_EQ(status({"--listen", "0", "--db", "x", "--clear", "all"}), 2);
    EXPECT_EQ(parsed({"--clear", "all", "--may-stop-blades"}).lane.archive.clear, Clear::ALL);
}

TEST(CommandLine, RowsAreCountedByOneLaneOnly) {
    EXPECT_EQ(status({"--listen", "0", "--db", "x", "--lanes", "2", "--row-limit", "9"}), 2);
    EXPECT_EQ(parsed({"--lanes", "2"}).lanes, 2U);
}

TEST(CommandLine, WhatIsNoNetworkIsRefused) {
    for (const char* text : {"", "10.0.0.0/33", "10.0.0.0/", "fd00::/129", "host", "10.0.0/8"}) {
        EXPECT_EQ(status({"--listen", "0", "--db", "x", "--allow", text}), 2) << text;
    }
}

TEST(CommandLine, DefaultsAskNoBladeToClearAndDoNothingBad) {
    const Options options = parsed({});
    EXPECT_EQ(options.lane.archive.clear, Clear::NOTHING);
    EXPECT_FALSE(options.misbehaviour.refuse || options.misbehaviour.neverRead ||
                 options.misbehaviour.twice || options.misbehaviour.unknownHandle ||
                 options.misbehaviour.wrongVersion);
    EXPECT_EQ(options.misbehaviour.closeAfter, 0U);
    EXPECT_EQ(options.misbehaviour.late.count(), 0);
}

TEST(CommandLine, EverySwitchArrives) {
    const Options options = parsed({"--clear",
                                    "all-but-newest",
                                    "--may-stop-blades",
                                    "--allow",
                                    "10.0.0.0/8",
                                    "--allow",
                                    "fd00::/8",
                                    "--per-host",
                                    "3",
                                    "--handshake-rate",
                                    "100",
                                    "--unsent-limit",
                                    "9000",
                                    "--spool",
                                    "70000",
                                    "--keep-days",
                                    "30",
                                    "--max-bytes",
                                    "1000000",
                                    "--blade-quota",
                                    "11",
                                    "--metrics",
                                    "9100",
                                    "--row-limit",
                                    "5",
                                    "--connection-limit",
                                    "6",
                                    "--answer-limit",
                                    "1448",
                                    "--batch",
                                    "7",
                                    "--progress",
                                    "0",
                                    "--lanes",
                                    "1",
                                    "--first-wait",
                                    "2",
                                    "--answer-wait",
                                    "3",
                                    "--receive-buffer",
                                    "2304",
                                    "--test-refuse",
                                    "--test-never-read",
                                    "--segment-size",
                                    "536",
                                    "--test-close-after",
                                    "9",
                                    "--test-late",
                                    "250",
                                    "--test-twice",
                                    "--test-unknown-handle",
                                    "--test-wrong-version",
                                    "--test-answers",
                                    "status"});
    EXPECT_EQ(options.lane.archive.clear, Clear::ALL_BUT_NEWEST);
    EXPECT_EQ(options.lane.archive.rowLimit, 5U);
    EXPECT_EQ(options.connectionLimit, 6U);
    EXPECT_EQ(options.allow, (std::vector<std::string>{"10.0.0.0/8", "fd00::/8"}));
    EXPECT_EQ(options.hostLimit, 3U);
    EXPECT_EQ(options.handshakeRate, 100U);
    EXPECT_EQ(options.unsentLimit, 9000U);
    EXPECT_EQ(options.spool, 70'000U);
    EXPECT_EQ(options.lane.retention.keepDays, 30U);
    EXPECT_EQ(options.lane.retention.maxBytes, 1'000'000U);
    EXPECT_EQ(options.lane.retention.bladeQuota, 11U);
    EXPECT_EQ(textOfEndpoint(*options.metrics), "127.0.0.1:9100");
    EXPECT_EQ(options.answerLimit, 1448U);
    EXPECT_EQ(options.lane.batch, 7U);
    EXPECT_EQ(options.lanes, 1U);
    EXPECT_EQ(options.firstWait.count(), 2);
    EXPECT_EQ(options.answerWait.count(), 3);
    EXPECT_EQ(options.progress.count(), 0);
    EXPECT_EQ(options.receiveBuffer, 2304);
    EXPECT_EQ(options.segmentSize, 536);
    EXPECT_TRUE(options.misbehaviour.refuse && options.misbehaviour.neverRead &&
                options.misbehaviour.twice && options.misbehaviour.unknownHandle &&
                options.misbehaviour.wrongVersion);
    EXPECT_EQ(options.misbehaviour.closeAfter, 9U);
    EXPECT_EQ(options.misbehaviour.late.count(), 250);
    EXPECT_EQ(options.misbehaviour.onlyType, EMP_E_MSGS_GET_EVENT_ARCHIVER_STATUS);
}
