#include "evfleet/fleet.h"

#include "link_messages.h"
#include "sqlite_store.h"
#include "temp_directory.h"

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
    std::function<void()> atSecondLink = [] {};
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

    /** What came on each link that has ended, its status request first. */
    std::vector<Bytes> received() {
        const std::lock_guard lock(mutex_);
        return received_;
    }

  private:
    void serve() {
        for (bool isFirst = true;; isFirst = false) {
            asio::ip::tcp::socket link = acceptor_.accept();
            if (isEnding_) {
                return;
            }
            if (!isFirst) {
                script_.atSecondLink();
            }
            Bytes bytes;
            try {
                talk(link, script_.splitFirst && isFirst, bytes);
            } catch (const std::system_error& error) {
                // The blade has gone; the next link is taken.
                if (error.code() == asio::error::eof) {
                    const std::lock_guard lock(mutex_);
                    received_.push_back(bytes);
                }
            }
        }
    }

    void talk(asio::ip::tcp::socket& link, bool isSplit, Bytes& bytes) {
        link.set_option(asio::ip::tcp::no_delay(true));
        Bytes request(STATUS_SIZE);
        asio::read(link, asio::buffer(request));
        bytes = request;
        Bytes answer(request.begin(), request.end() - 4);
        answer[7] = 2; // response
        const Bytes claim = [this] {
            Bytes number;
            support::put32(number, script_.last);
            support::put32(number, script_.flag);
            return number;
        }();
        std::copy(claim.begin(), claim.end(), answer.end() - 8);
        if (isSplit) {
            asio::write(link, asio::buffer(answer.data(), 100));
        } else {
            asio::write(link, asio::buffer(answer));
        }
        U8_t sink[4096];
        while (!isEnding_) {
            const std::size_t size = link.read_some(asio::buffer(sink));
            bytes.insert(bytes.end(), sink, sink + size);
        }
    }

    Script script_;
    asio::io_context io_;
    asio::ip::tcp::acceptor acceptor_{io_, {asio::ip::make_address("127.0.0.1"), 0}};
    std::atomic<bool> isEnding_ = false;
    std::mutex mutex_;
    std::vector<Bytes> received_; ///< of links that ended in order
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

TEST(FleetRun, RestartedBladeKeepsItsLogAndNothingElse) {
    ScriptedArchiver archiver({});
    evfleet::FleetContext fleet;
    fleet.archivers = {archiver.place()};
    fleet.reconnect = std::chrono::milliseconds(10);
    const evfleet::LogShape shape;
    evfleet::BladeLink blade(fleet, evfleet::SimulatedLog(shape, 0));
    blade.logEvents(5);
    blade.cutAfter(3, evfleet::Outage::RESTART);
    blade.connect();
    while (archiver.received().empty() || !blade.isCaughtUp()) {
        fleet.io.run_for(std::chrono::milliseconds(10));
    }
    blade.reconnectNow();
    while (archiver.received().size() < 2) {
        fleet.io.run_for(std::chrono::milliseconds(10));
    }
    const auto links = archiver.received();
    Bytes sent;
    blade.log().appendStatusRequest(sent, 1000);
    for (U32_t id = 1; id <= 3; ++id) {
        blade.log().appendEventMessage(sent, id);
    }
    ASSERT_GT(links[0].size(), sent.size()) << "and a piece of the next";
    EXPECT_EQ(Bytes(links[0].begin(), links[0].begin() + std::ptrdiff_t(sent.size())), sent);
    for (U32_t id = 4; id <= 6; ++id) {
        blade.log().appendEventMessage(sent, id);
    }
    EXPECT_EQ(links[1], sent) << "with the handle of a first request again";
    EXPECT_EQ(fleet.counts.restarts, 1U);
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
    EXPECT_FALSE(result.isClean());
    EXPECT_GT(result.counts.failedConnects, 0U);
}

// They are there again once the blade has asked anew, which hides nothing.
TEST(FleetRun, ClaimedEventsThatAreGoneAreTold) {
    const support::TempDirectory directory;
    const std::string path = directory.file("events.db");
    FleetOptions options;
    options.events = 3;
    options.check = path;
    const auto fileAll = [&] {
        const auto store = evarchive::openArchive(path);
        const evfleet::SimulatedLog log(options.shape, 0);
        store->begin();
        const auto series = store->addSeries({{"FLEET", log.bladeName(), 0}, 1});
        store->addGeneration({series, 1}, 0);
        for (U32_t id = 1; id <= 4; ++id) {
            evfleet::Bytes image;
            log.appendEvent(image, id, 0);
            evarchive::NewEvent event;
            event.sequenceId = id;
            event.image = image;
            store->addEvent({series, 1}, event);
        }
        store->commit();
    };
    evarchive::openArchive(path);
    bool isFiled = false;
    ScriptedArchiver archiver({.last = 1, .flag = 0, .atSecondLink = [&] {
                                   if (!std::exchange(isFiled, true)) {
                                       fileAll();
                                   }
                               }});
    options.archivers = {archiver.place()};
    options.blades = 1;
    options.settle = std::chrono::seconds(1);
    options.progress = std::chrono::seconds(0);
    const FleetResult result = Fleet(options, [](const std::string&) {}).run();
    EXPECT_TRUE(result.check.isClean());
    EXPECT_EQ(result.lost, 1U);
    EXPECT_FALSE(result.isClean());
}

TEST(FleetRun, ArchiveThatCannotBeReadIsToldBeforeAnythingIsSent) {
    FleetOptions options;
    options.check = "/dev/null";
    EXPECT_THROW(Fleet(options, [](const std::string&) {}), evarchive::StoreError);
}

} // namespace
