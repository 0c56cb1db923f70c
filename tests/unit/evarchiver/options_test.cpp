#include "options.h"

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
    EXPECT_EQ(status({"--help"}), 0);
    EXPECT_EQ(status({"--version"}), 0);
}

TEST(CommandLine, DefaultsAskNoBladeToClearAndDoNothingBad) {
    const Options options = parsed({});
    EXPECT_EQ(options.archive.clear, Clear::NOTHING);
    EXPECT_FALSE(options.misbehaviour.refuse || options.misbehaviour.neverRead ||
                 options.misbehaviour.twice || options.misbehaviour.unknownHandle ||
                 options.misbehaviour.wrongVersion);
    EXPECT_EQ(options.misbehaviour.closeAfter, 0U);
    EXPECT_EQ(options.misbehaviour.late.count(), 0);
}

TEST(CommandLine, EverySwitchArrives) {
    const Options options = parsed({"--clear",
                                    "all-but-newest",
                                    "--row-limit",
                                    "5",
                                    "--connection-limit",
                                    "6",
                                    "--answer-limit",
                                    "8192",
                                    "--batch",
                                    "7",
                                    "--progress",
                                    "0",
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
    EXPECT_EQ(options.archive.clear, Clear::ALL_BUT_NEWEST);
    EXPECT_EQ(options.archive.rowLimit, 5U);
    EXPECT_EQ(options.connectionLimit, 6U);
    EXPECT_EQ(options.answerLimit, 8192U);
    EXPECT_EQ(options.archive.batch, 7U);
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
