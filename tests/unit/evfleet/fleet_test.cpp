#include "evfleet/fleet.h"

#include "link_messages.h"

#include <asio/buffer.hpp>
#include <asio/read.hpp>
#include <asio/write.hpp>
#include <gtest/gtest.h>
#include <thread>

namespace {

using evfleet::Fleet;
using evfleet::FleetOptions;
using evfleet::FleetResult;
using support::Bytes;

constexpr std::size_t STATUS_SIZE = 196;

/** What a scripted archiver claims, and in how many pieces it answers. */
struct Script {
    U32_t last = 0;
    U32_t flag = 1;
    bool splitFirst = false; ///< the first answer comes in two pieces
};

/** Answers each connection's status request and reads what comes behind it. One at a time. */
class ScriptedArchiver {
  public:
    explicit ScriptedArchiver(Script script) : script_(script) {
        thread_ = std::thread([this] { serve(); });
    }

    ~ScriptedArchiver() {
        isEnding_ = true;
        asio::ip::tcp::socket knock(io_);
        asio::error_code ignored;
        knock.connect(acceptor_.local_endpoint(), ignored);
        thread_.join();
    }

    asio::ip::tcp::endpoint place() const { return acceptor_.local_endpoint(); }

  private:
    void serve() {
        for (bool isFirst = true;; isFirst = false) {
            asio::ip::tcp::socket link = acceptor_.accept();
            if (isEnding_) {
                return;
            }
            try {
                talk(link, script_.splitFirst && isFirst);
            } catch (const std::exception&) {
                // The blade has gone; the next link is taken.
            }
        }
    }

    void talk(asio::ip::tcp::socket& link, bool isSplit) {
        link.set_option(asio::ip::tcp::no_delay(true));
        Bytes request(STATUS_SIZE);
        asio::read(link, asio::buffer(request));
        Bytes answer(request.begin(), request.end() - 4);
        answer[7] = 2; // response
        const Bytes claim = [this] {
            Bytes bytes;
            support::put32(bytes, script_.last);
            support::put32(bytes, script_.flag);
            return bytes;
        }();
        std::copy(claim.begin(), claim.end(), answer.end() - 8);
        if (isSplit) {
            asio::write(link, asio::buffer(answer.data(), 100));
        } else {
            asio::write(link, asio::buffer(answer));
        }
        U8_t sink[4096];
        while (!isEnding_) {
            link.read_some(asio::buffer(sink));
        }
    }

    Script script_;
    asio::io_context io_;
    asio::ip::tcp::acceptor acceptor_{io_, {asio::ip::make_address("127.0.0.1"), 0}};
    std::atomic<bool> isEnding_ = false;
    std::thread thread_;
};

FleetResult runAgainst(const Script& script, U32_t events) {
    ScriptedArchiver archiver(script);
    FleetOptions options;
    options.archivers = {archiver.place()};
    options.blades = 1;
    options.events = events;
    options.reconnect = std::chrono::milliseconds(10);
    options.settle = std::chrono::seconds(10);
    options.progress = std::chrono::seconds(0);
    return Fleet(options, [](const std::string&) {}).run();
}

TEST(FleetRun, SendsWhatIsNotClaimed) {
    const FleetResult result = runAgainst({}, 20);
    EXPECT_TRUE(result.isClean());
    EXPECT_EQ(result.counts.sent, 42U) << "21 events, and all of them again on the last link";
    EXPECT_EQ(result.counts.handshakes, 2U);
}

TEST(FleetRun, ClaimedEventsAreNotSentAgain) {
    const FleetResult result = runAgainst({.last = 1, .flag = 0}, 20);
    EXPECT_TRUE(result.isClean());
    EXPECT_EQ(result.counts.sent, 40U);
}

TEST(FleetRun, ClaimOfAnIdThatWasNeverGivenOutIsCounted) {
    const FleetResult result = runAgainst({.last = 500, .flag = 0}, 20);
    EXPECT_GT(result.counts.claimsBeyond, 0U);
    EXPECT_FALSE(result.isClean());
}

TEST(FleetRun, AnswerInPiecesEndsABlade) {
    const FleetResult result = runAgainst({.splitFirst = true}, 0);
    EXPECT_EQ(result.counts.died, 1U);
    EXPECT_EQ(result.unsettled, 0U) << "it comes back";
    EXPECT_FALSE(result.isClean());
}

TEST(FleetRun, NobodyListeningIsToldAsUnsettled) {
    FleetOptions options;
    {
        asio::io_context io;
        asio::ip::tcp::acceptor taken(io, {asio::ip::make_address("127.0.0.1"), 0});
        options.archivers = {taken.local_endpoint()};
    }
    options.blades = 3;
    options.events = 1;
    options.reconnect = std::chrono::milliseconds(50);
    options.settle = std::chrono::seconds(1);
    options.progress = std::chrono::seconds(0);
    const FleetResult result = Fleet(options, [](const std::string&) {}).run();
    EXPECT_EQ(result.unsettled, 3U);
    EXPECT_GT(result.counts.failedConnects, 0U);
}

} // namespace
