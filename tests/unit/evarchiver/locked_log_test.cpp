/** Logs that somebody keeps locked: what waits for them, and what does not. */
#include "lane_fixture.h"

#include <numeric>

using namespace evarchive;
using namespace support;
using testing::HasSubstr;

namespace {

/** A lane over a storage of which somebody keeps logs locked. */
class LockedLogTest : public BladesFixture {
  protected:
    void SetUp() override {
        LaneSettings settings;
        settings.lockPatience = patience_;
        settings.batch = batchSize_;
        settings.batchWait = batchWait_;
        startShared(settings);
        addStatus(1);
        addStatus(2);
        addEvents(1, 0, 4);
        addEvents(2, 0, 4);
        submit();
        waitForReplies(2);
        requireSoon([this] { return lane_->state().spooled == 0; }, "all to be safe");
    }

    std::vector<U32_t> idsOf(LinkNumber link) {
        std::vector<U32_t> ids;
        MemoryStore store(database_);
        const auto series = store.findSeries(keyOf(link));
        store.forEachEvent({*series, 1},
                           [&ids](const StoredEvent& event) { ids.push_back(event.sequenceId); });
        return ids;
    }

    static std::vector<U32_t> idsTo(U32_t last) {
        std::vector<U32_t> ids(last + 1);
        std::iota(ids.begin(), ids.end(), 0U);
        return ids;
    }

    void expectAllIsFiled(U32_t last) {
        requireSoon([this] { return lane_->state().spooled == 0; }, "all to be safe");
        EXPECT_TRUE(lane_->stop(std::chrono::seconds(5)));
        EXPECT_EQ(idsOf(1), idsTo(last));
        EXPECT_EQ(idsOf(2), idsTo(last));
        EXPECT_EQ(lane_->state().counts.stored, 2 * (last + 1));
        EXPECT_EQ(lane_->state().counts.duplicates, 0U);
        EXPECT_EQ(lane_->state().counts.gaps, 0U);
        EXPECT_TRUE(database_.aside.empty());
        EXPECT_EQ(failed_, "");
    }

    std::chrono::milliseconds patience_ = std::chrono::minutes(5);
    U32_t batchSize_ = LaneSettings().batch;
    std::chrono::milliseconds batchWait_ = LaneSettings().batchWait;
};

/** The same under a load: a commit never falls on the last event of all that is there. */
class BusyLockedLogTest : public LockedLogTest {
  protected:
    BusyLockedLogTest() {
        batchSize_ = 4;
        batchWait_ = std::chrono::seconds(1);
    }

    bool isSaid(const std::string& text) {
        const std::lock_guard lock(mutex_);
        return said_.find(text) != std::string::npos;
    }
};

/** The same, and nobody is patient. */
class LongLockedLogTest : public LockedLogTest {
  protected:
    LongLockedLogTest() { patience_ = std::chrono::milliseconds(0); }
};

} // namespace

TEST_F(LockedLogTest, EventsOfOtherLogsAreFiledAndTheirBladesAnswered) {
    store_->lock({keyOf(1)});
    addEvents(1, 5, 7);
    addEvents(2, 5, 7);
    addStatus(2);
    submit();
    EXPECT_EQ(waitForReplies(3)[2].link, 2U);
    EXPECT_EQ(waitForReplies(3)[2].verdict, (StatusVerdict{6, 0}));
    addEvents(1, 8, 9);
    addEvents(2, 8, 9);
    addStatus(2);
    submit();
    EXPECT_EQ(waitForReplies(4)[3].verdict, (StatusVerdict{8, 0}));
    EXPECT_GT(lane_->state().spooled, 0U);
    EXPECT_GT(lane_->state().lag, 0);
    EXPECT_FALSE(lane_->state().isAway);
    store_->lock({});
    expectAllIsFiled(9);
    EXPECT_THAT(said_, HasSubstr("BLADE-1 slot 1 instance 1: another session"));
    EXPECT_THAT(said_, HasSubstr("not locked any more"));
}

TEST_F(BusyLockedLogTest, IsLookedAtAlsoWhileOtherEventsNeverCease) {
    store_->lock({keyOf(1)});
    addEvents(1, 5, 9);
    addEvents(2, 5, 5);
    submit();
    requireSoon([this] { return isSaid("another session"); }, "the lock to be met");
    store_->lock({});
    U32_t next = 6;
    requireSoon(
        [&] {
            addEvents(2, next, next + batchSize_ - 1);
            next += batchSize_;
            submit();
            return isSaid("not locked any more");
        },
        "it to be looked at");
    EXPECT_TRUE(lane_->stop(std::chrono::seconds(5)));
    EXPECT_EQ(idsOf(1), idsTo(9));
    EXPECT_EQ(idsOf(2), idsTo(next - 1));
}

TEST_F(LockedLogTest, HandshakeOfALockedLogIsAnsweredBehindItsEvents) {
    store_->lock({keyOf(1)});
    addEvents(1, 5, 9);
    addStatus(1);
    addStatus(2);
    submit();
    EXPECT_EQ(waitForReplies(3)[2].link, 2U);
    store_->lock({});
    const auto replies = waitForReplies(4);
    EXPECT_EQ(replies[3].link, 1U);
    EXPECT_EQ(replies[3].verdict, (StatusVerdict{8, 0}));
    addEvents(2, 5, 9);
    submit();
    expectAllIsFiled(9);
}

TEST_F(LockedLogTest, WhoAsksAboutALockedLogIsAnsweredAndHisEventsAreFiled) {
    store_->lock({keyOf(1)});
    addEvents(1, 5, 9);
    addStatus(2); // behind it, all before is committed or waits
    submit();
    waitForReplies(3);
    batch_.add(2, Batch::Kind::INQUIRY, inquiryBody(LAST, logOf(1), 0));
    addEvents(2, 5, 9);
    addStatus(2);
    submit();
    const auto replies = waitForReplies(5);
    EXPECT_EQ(replies[3].link, 2U);
    EXPECT_EQ(replies[3].event->sequenceId, 4U);
    EXPECT_EQ(replies[4].verdict, (StatusVerdict{8, 0}));
    store_->lock({});
    expectAllIsFiled(9);
}

TEST_F(LockedLogTest, InquiryAboutALockedLogFindsWhatWaits) {
    store_->lock({keyOf(1)});
    addEvents(1, 5, 8);
    addEvents(2, 5, 9);
    addStatus(2);
    submit();
    waitForReplies(3);
    addEvents(1, 9, 9);
    addInquiry(1);
    addInquiry(2);
    submit();
    EXPECT_EQ(waitForReplies(4)[3].link, 2U);
    store_->lock({});
    EXPECT_EQ(waitForReplies(5)[4].event->sequenceId, 9U);
    expectAllIsFiled(9);
}

TEST_F(LockedLogTest, LogThatIsFreeDoesNotWaitForOneThatIsNot) {
    store_->lock({keyOf(1), keyOf(2)});
    addEvents(1, 5, 9);
    addStatus(1);
    addEvents(2, 5, 9);
    addStatus(2);
    submit();
    store_->lock({keyOf(2)});
    EXPECT_EQ(waitForReplies(3)[2].verdict, (StatusVerdict{8, 0}));
    EXPECT_EQ(waitForReplies(3)[2].link, 1U);
    store_->lock({});
    EXPECT_EQ(waitForReplies(4)[3].verdict, (StatusVerdict{8, 0}));
    expectAllIsFiled(9);
}

// Its blade's events go on waiting behind it: a log's events stay in their order.
TEST_F(LockedLogTest, LinkThatBroughtAnEventOfALockedLogWaitsAsAWhole) {
    store_->lock({keyOf(1)});
    batch_.add(2, Batch::Kind::EVENT, eventBody({.log = logOf(1), .id = 5}));
    addEvents(2, 6, 9);
    addEvents(3, 0, 4);
    addStatus(3);
    addStatus(2);
    submit();
    EXPECT_EQ(waitForReplies(3)[2].link, 3U);
    store_->lock({});
    EXPECT_EQ(waitForReplies(4)[3].link, 2U);
    EXPECT_EQ(waitForReplies(4)[3].verdict, (StatusVerdict{8, 0}));
    EXPECT_TRUE(lane_->stop(std::chrono::seconds(5)));
    EXPECT_EQ(idsOf(2), idsTo(9));
    EXPECT_EQ(idsOf(1), idsTo(5));
}

// Its blade has come again: what it is told has all that it sent before.
TEST_F(LockedLogTest, LogOfWhichSomethingWaitsWaitsOnAnotherLinkToo) {
    store_->lock({keyOf(1)});
    batch_.add(2, Batch::Kind::EVENT, eventBody({.log = logOf(1), .id = 5}));
    addEvents(2, 6, 9);
    batch_.add(5, Batch::Kind::STATUS, statusBody(logOf(2), 0, {1, 2, 3}));
    addStatus(3);
    submit();
    EXPECT_EQ(waitForReplies(3)[2].link, 3U);
    store_->lock({});
    EXPECT_EQ(waitForReplies(4)[3].link, 5U);
    EXPECT_EQ(waitForReplies(4)[3].verdict, (StatusVerdict{8, 0}));
    EXPECT_TRUE(lane_->stop(std::chrono::seconds(5)));
}

// The batch it came in is done again: what waits is not in it any more.
TEST_F(LockedLogTest, ConflictOfAnotherLogLeavesWhatWaitsAlone) {
    MemoryStore other(database_, true);
    other.claim(keyOf(2), 0);
    store_->lock({keyOf(1)});
    addEvents(1, 5, 9);
    addEvents(2, 5, 9);
    submit();
    EXPECT_EQ(waitForReplies(3)[2].kind, Reply::Kind::SUPERSEDED);
    store_->lock({});
    requireSoon([this] { return lane_->state().spooled == 0; }, "all to be safe");
    EXPECT_TRUE(lane_->stop(std::chrono::seconds(5)));
    EXPECT_EQ(idsOf(1), idsTo(9));
    EXPECT_EQ(lane_->state().counts.duplicates, 0U);
    EXPECT_EQ(database_.aside.size(), 5U);
}

TEST_F(LockedLogTest, EndSaysWhatIsNotSafe) {
    store_->lock({keyOf(1)});
    addEvents(1, 5, 9);
    addEvents(2, 5, 9);
    addStatus(2);
    submit();
    waitForReplies(3);
    EXPECT_FALSE(lane_->stop(std::chrono::milliseconds(20)));
    EXPECT_GT(lane_->state().spooled, 0U);
    EXPECT_EQ(idsOf(1), idsTo(4));
    EXPECT_EQ(idsOf(2), idsTo(9));
}

TEST_F(LockedLogTest, EndWaitsForALockThatEnds) {
    store_->lock({keyOf(1)});
    addEvents(1, 5, 9);
    addEvents(2, 5, 9);
    addStatus(2);
    submit();
    waitForReplies(3);
    lane_->beginStop(std::chrono::steady_clock::now() + std::chrono::minutes(1));
    store_->lock({});
    EXPECT_TRUE(lane_->finishStop());
    EXPECT_EQ(idsOf(1), idsTo(9));
}

TEST_F(LongLockedLogTest, LinkOfALogThatStaysLockedIsClosedOnce) {
    store_->lock({keyOf(1)});
    addEvents(1, 5, 9);
    addEvents(2, 5, 9);
    submit();
    EXPECT_EQ(waitForReplies(3)[2].kind, Reply::Kind::LOCKED);
    EXPECT_EQ(waitForReplies(3)[2].link, 1U);
    batch_.add(1, Batch::Kind::END_OF_LINK, {});
    addStatus(4);
    submit();
    EXPECT_EQ(waitForReplies(4)[3].link, 4U);
    store_->lock({});
    expectAllIsFiled(9);
    EXPECT_EQ(waitForReplies(4).size(), 4U);
}

TEST_F(LockedLogTest, HandshakesThatWaitTogetherAreClaimedWithoutTheLockedOne) {
    store_->lock({keyOf(4)});
    for (const LinkNumber link : {3, 4, 5, 6}) {
        addStatus(link);
    }
    submit();
    const auto replies = waitForReplies(5);
    EXPECT_EQ(replies[2].link, 3U);
    EXPECT_EQ(replies[3].link, 5U);
    EXPECT_EQ(replies[4].link, 6U);
    store_->lock({});
    EXPECT_EQ(waitForReplies(6)[5].link, 4U);
    EXPECT_TRUE(lane_->stop(std::chrono::seconds(5)));
    EXPECT_EQ(database_.epochs[*store_->findSeries(keyOf(3))], 1U);
}
