/** Status requests that wait together, in a lane of a shared archive. */
#include "lane_fixture.h"

using namespace evarchive;
using namespace support;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

namespace {

class HandshakesTest : public BladesFixture {
  protected:
    void addStatuses(LinkNumber first, LinkNumber last) {
        for (LinkNumber link = first; link <= last; ++link) {
            addStatus(link);
        }
    }

    static std::vector<SeriesKey> keys(LinkNumber first, LinkNumber last) {
        std::vector<SeriesKey> list;
        for (LinkNumber link = first; link <= last; ++link) {
            list.push_back(keyOf(link));
        }
        return list;
    }
};

} // namespace

TEST_F(HandshakesTest, OnesThatWaitTogetherAreClaimedTogetherAndAnsweredInTurn) {
    startShared({});
    addStatuses(1, 3);
    batch_.add(9, Batch::Kind::SPEAKER, statusBody(logOf(9), 0, {1, 2, 3}));
    batch_.add(8, Batch::Kind::END_OF_LINK, {});
    addStatuses(4, 5);
    submit();
    const auto replies = waitForReplies(5);
    for (LinkNumber link = 1; link <= 5; ++link) {
        EXPECT_EQ(replies[link - 1].link, link);
        EXPECT_EQ(replies[link - 1].verdict, NOTHING_HELD);
    }
    EXPECT_THAT(store_->groups(), ElementsAre(keys(1, 5)));
    EXPECT_TRUE(lane_->stop(std::chrono::seconds(5)));
    EXPECT_EQ(lane_->state().counts.statusAnswers, 5U);
}

TEST_F(HandshakesTest, OthersWaitBehindAsManyAsAreClaimedTogether) {
    LaneSettings settings;
    settings.handshakes = 2;
    startShared(settings);
    addStatuses(1, 5);
    submit();
    EXPECT_EQ(waitForReplies(5)[4].link, 5U);
    EXPECT_THAT(store_->groups(), ElementsAre(keys(1, 2), keys(3, 4), keys(5, 5)));
}

// Whatever an event is filed in, it comes before the claims behind it, and behind those before it.
TEST_F(HandshakesTest, EventsBetweenThemAreFiledBetweenTheClaims) {
    startShared({});
    addStatuses(1, 2);
    addEvents(2, 0, 4);
    addStatuses(2, 3);
    addEvents(3, 0, 2);
    submit();
    const auto replies = waitForReplies(4);
    EXPECT_EQ(replies[1].verdict, NOTHING_HELD);
    EXPECT_EQ(replies[2].link, 2U);
    EXPECT_EQ(replies[2].verdict, (StatusVerdict{3, 0}));
    EXPECT_EQ(replies[3].link, 3U);
    EXPECT_THAT(store_->groups(), ElementsAre(keys(1, 2), keys(2, 3)));
    EXPECT_TRUE(lane_->stop(std::chrono::seconds(5)));
    EXPECT_TRUE(database_.aside.empty());
    EXPECT_EQ(lane_->state().counts.stored, 8U);
}

// The blade has come again: of two claims of one log the second one holds.
TEST_F(HandshakesTest, LogThatIsClaimedTwiceEndsTheGroup) {
    startShared({});
    addStatuses(1, 2);
    batch_.add(7, Batch::Kind::STATUS, statusBody(logOf(1), 0, {1, 2, 3}));
    addStatus(3);
    addEvents(1, 0, 1);
    batch_.add(7, Batch::Kind::EVENT, eventBody({.log = logOf(1), .id = 2}));
    submit();
    EXPECT_EQ(waitForReplies(4)[2].link, 7U);
    EXPECT_THAT(store_->groups(), SizeIs(2));
    EXPECT_TRUE(lane_->stop(std::chrono::seconds(5)));
    EXPECT_EQ(database_.aside.size(), 2U); // what came on the link of before
    EXPECT_EQ(lane_->state().counts.stored, 1U);
}

// Nothing was heard of it.
TEST_F(HandshakesTest, CommitBeforeThemThatFailedIsDoneAgainAndNobodyIsAnsweredTwice) {
    startShared({});
    addStatuses(1, 3);
    addEvents(2, 0, 4);
    submit();
    requireSoon([this] { return lane_->state().counts.stored == 5 && lane_->spooled() == 0; },
                "the events to be safe");
    store_->failAfterCommit();
    addEvents(3, 0, 1);
    addStatuses(1, 3);
    submit();
    const auto replies = waitForReplies(6);
    EXPECT_EQ(replies[3].link, 1U);
    EXPECT_EQ(replies[4].verdict, (StatusVerdict{3, 0}));
    EXPECT_EQ(replies[5].verdict, (StatusVerdict{0, 0}));
    EXPECT_TRUE(lane_->stop(std::chrono::seconds(5)));
    EXPECT_EQ(waitForReplies(6).size(), 6U);
    EXPECT_EQ(lane_->state().counts.stored, 5U);
    EXPECT_EQ(lane_->state().counts.duplicates, 2U);
}
