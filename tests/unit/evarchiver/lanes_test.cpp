#include "lanes.h"

#include "link_messages.h"
#include "memory_store.h"
#include "sqlite_store.h"
#include "temp_directory.h"
#include "wait.h"

#include <gtest/gtest.h>

using namespace evarchive;
using namespace support;

namespace {

/** Three lanes over one file. */
class LanesTest : public testing::Test {
  protected:
    static constexpr U32_t LANES = 3;

    LanesTest() {
        lanes_.emplace(engineOf(path_), LaneSettings{}, LANES,
                       Lane::Callbacks{[this](const std::vector<Reply>& replies) {
                                           const std::lock_guard lock(mutex_);
                                           replies_.insert(replies_.end(), replies.begin(),
                                                           replies.end());
                                       },
                                       [](Level, const std::string&) {},
                                       [this](const std::string& why) {
                                           const std::lock_guard lock(mutex_);
                                           failed_ = why;
                                       }});
    }

    /** A blade whose logs are in this share. */
    static LogName bladeOfShare(U32_t share) {
        LogName log;
        for (int number = 0;; ++number) {
            log.blade = "B" + std::to_string(number);
            if (Share::shareOf(keyOf(log), LANES) == share) {
                return log;
            }
        }
    }
    static BladeKey keyOf(const LogName& log) { return {log.enclosure, log.blade, log.slot}; }

    void addEvent(LinkNumber link, const std::optional<LogName>& speaker, const LogName& log,
                  U32_t id) {
        lanes_->add(link, speaker ? std::optional(keyOf(*speaker)) : std::nullopt,
                    Batch::Kind::EVENT, eventBody({.log = log, .id = id}), 0);
    }
    void addStatus(LinkNumber link, const LogName& log, U32_t ticket) {
        lanes_->add(link, keyOf(log), Batch::Kind::STATUS, statusBody(log, 0, {1, 2, 3}), ticket);
    }

    Reply waitFor(U32_t ticket) {
        Reply found;
        requireSoon(
            [&] {
                const std::lock_guard lock(mutex_);
                const auto reply = std::ranges::find(replies_, ticket, &Reply::ticket);
                if (reply != replies_.end()) {
                    found = *reply;
                }
                return reply != replies_.end();
            },
            "the reply");
        return found;
    }

    void stop() {
        ASSERT_TRUE(lanes_->stop(std::chrono::seconds(10)));
        EXPECT_EQ(failed_, "");
    }

    std::map<BladeKey, U64_t> storedByBlade() {
        std::map<BladeKey, U64_t> stored;
        lanes_.reset();
        const auto store = openArchiveForReading(path_);
        for (const GenerationInfo& generation : store->listGenerations()) {
            store->forEachEvent(generation.number,
                                [&](const StoredEvent&) { ++stored[generation.key.blade]; });
        }
        return stored;
    }

    TempDirectory directory_;
    std::string path_ = directory_.path() + "/events.db";
    std::mutex mutex_;
    std::vector<Reply> replies_;
    std::string failed_;
    std::optional<Lanes> lanes_;
};

} // namespace

TEST_F(LanesTest, LogsOfAllLanesAreKeptInOneFile) {
    for (U32_t id = 0; id < 50; ++id) {
        for (U32_t share = 0; share < LANES; ++share) {
            addEvent(share + 1, {}, bladeOfShare(share), id);
        }
        lanes_->handOver();
    }
    stop();
    EXPECT_EQ(lanes_->state().counts.stored, 150U);
    EXPECT_EQ(lanes_->spooled(), 0U);
    EXPECT_EQ(lanes_->countGaps(), 0U);
    const auto stored = storedByBlade();
    EXPECT_EQ(stored.size(), 3U);
    for (const auto& [blade, count] : stored) {
        EXPECT_EQ(count, 50U) << blade.blade;
    }
}

TEST_F(LanesTest, RepliesBearTheTicketsOfTheirRequests) {
    for (U32_t share = 0; share < LANES; ++share) {
        const LogName log = bladeOfShare(share);
        for (U32_t id = 0; id <= share + 1; ++id) {
            addEvent(1, {}, log, id);
        }
        addStatus(1, log, share + 100);
        lanes_->add(1, {}, Batch::Kind::INQUIRY, inquiryBody(LAST, log, 0), share + 200);
    }
    lanes_->handOver();
    for (U32_t share = 0; share < LANES; ++share) {
        EXPECT_EQ(waitFor(share + 100).verdict, (StatusVerdict{share, 0}));
        EXPECT_EQ(waitFor(share + 200).event->sequenceId, share + 1);
    }
    stop();
}

TEST_F(LanesTest, EventOfAnotherIdentityHoldsItsPlaceInBothLogs) {
    const LogName speaker = bladeOfShare(0);
    const LogName stranger = bladeOfShare(1);
    addStatus(7, speaker, 1);
    addEvent(7, speaker, speaker, 0);
    addEvent(7, speaker, stranger, 1);
    addEvent(7, speaker, speaker, 2);
    addStatus(7, speaker, 2);
    lanes_->handOver();
    EXPECT_EQ(waitFor(2).verdict, (StatusVerdict{1, 0}));
    stop();
    EXPECT_EQ(lanes_->state().counts.strangers, 1U);
    EXPECT_EQ(lanes_->state().counts.stored, 4U);
    auto stored = storedByBlade();
    EXPECT_EQ(stored[keyOf(speaker)], 3U);
    EXPECT_EQ(stored[keyOf(stranger)], 1U);
}

TEST_F(LanesTest, LinkThatWasReplacedIsSoInTheLanesOfOtherBlades) {
    const LogName speaker = bladeOfShare(0);
    const LogName stranger = bladeOfShare(1);
    addStatus(7, speaker, 1);
    addEvent(7, speaker, stranger, 5);
    addStatus(8, speaker, 2); // the blade has a later link
    lanes_->add(7, keyOf(speaker), Batch::Kind::EVENT,
                eventBody({.log = stranger, .id = 6, .time = 5}), 0);
    lanes_->handOver();
    stop();
    EXPECT_EQ(lanes_->state().counts.setAside, 2U); // in both logs
    EXPECT_EQ(storedByBlade()[keyOf(stranger)], 1U);
}

TEST_F(LanesTest, EndOfALinkReachesAllLanes) {
    const LogName speaker = bladeOfShare(0);
    const LogName stranger = bladeOfShare(1);
    addStatus(7, speaker, 1);
    lanes_->add(7, keyOf(speaker), Batch::Kind::END_OF_LINK, {}, 0);
    lanes_->handOver();
    waitFor(1);
    // The number does not come again; if it did, nobody would be known to speak there.
    addEvent(7, {}, stranger, 0);
    lanes_->handOver();
    stop();
    EXPECT_EQ(lanes_->state().counts.strangers, 0U);
    EXPECT_EQ(lanes_->state().counts.stored, 1U);
}

TEST_F(LanesTest, SecondArchiverOfTheSameFileIsRefused) {
    EXPECT_THROW(engineOf(path_).connect(), StoreError);
    stop();
}

namespace {

struct OwnDatabase {
    MemoryDatabase database;
};

// Each lane has a thread, and such a database is for one of them.
class SizedStore : private OwnDatabase, public MemoryStore {
  public:
    SizedStore() : MemoryStore(database) {}
    U64_t bytesUsed() override { return 100; }
};

} // namespace

// The lanes of one server see one archive.
TEST(SpreadLanesTest, SizeIsThatOfAllServersTogether) {
    const Engine engine{.connect = {},
                        .spread = Spread{3, [](U32_t) { return std::make_unique<SizedStore>(); },
                                         [](const SeriesKey& key) { return key.blade.slot % 3; }}};
    Lanes lanes(engine, {}, 2,
                {[](const std::vector<Reply>&) {}, [](Level, const std::string&) {},
                 [](const std::string&) {}});
    for (U32_t number = 0; number < 60; ++number) { // so many that no lane is without
        const LogName log{.blade = "B" + std::to_string(number / 3), .slot = number % 3};
        lanes.add(1, std::nullopt, Batch::Kind::EVENT, eventBody({.log = log, .id = 0}), 0);
    }
    lanes.handOver();
    requireSoon([&] { return lanes.state().counts.stored == 60 && lanes.state().bytesUsed > 200; },
                "all sizes");
    EXPECT_EQ(lanes.state().bytesUsed, 300U);
    EXPECT_TRUE(lanes.stop(std::chrono::seconds(10)));
    EXPECT_EQ(lanes.state().bytesUsed, 300U);
}
