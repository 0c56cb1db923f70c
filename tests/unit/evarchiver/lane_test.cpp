#include "lane_fixture.h"
#include "sqlite_store.h"

#include <numeric>

using namespace evarchive;
using namespace support;
using testing::HasSubstr;

namespace {

/** A storage in memory of which the test can take the lock, as another program would. */
class LockableStore : public Store {
  public:
    LockableStore(std::atomic<int>& good, std::atomic<int>& failures)
        : good_(good), failures_(failures) {}

    void begin() override { inner_->begin(); }
    void commit() override {
        if (good_ > 0) {
            --good_;
        } else if (failures_ > 0 && failures_ < LOOKS_FAIL) {
            --failures_;
            throw StoreError("locked", StoreError::Kind::PASSING);
        }
        if (failures_ == REFUSES) {
            throw StoreError("not allowed", StoreError::Kind::REFUSED);
        }
        if (failures_ < 0) {
            throw StoreError("broken");
        }
        inner_->commit();
        if (failures_ == COMMIT_IS_NOT_TOLD) {
            failures_ = 0;
            throw StoreError("cut", StoreError::Kind::PASSING);
        }
        ++commits_;
    }
    void rollback() noexcept override { inner_->rollback(); }
    SeriesNumber addSeries(const SeriesKey& key) override { return inner_->addSeries(key); }
    void addGeneration(const GenerationKey& generation, S64_t opened) override {
        inner_->addGeneration(generation, opened);
    }
    void addEvent(const GenerationKey& generation, const NewEvent& event) override {
        inner_->addEvent(generation, event);
    }
    void confirmEvent(const GenerationKey& generation, View image) override {
        inner_->confirmEvent(generation, image);
    }
    void removeEvent(const GenerationKey& generation, U32_t id) override {
        inner_->removeEvent(generation, id);
    }
    U64_t removeOldest(const GenerationKey& generation, S64_t before, U64_t most) override {
        return inner_->removeOldest(generation, before, most);
    }
    void countDuplicates(const GenerationKey& generation, U64_t more) override {
        inner_->countDuplicates(generation, more);
    }
    void noteProven(const GenerationKey& generation, const IdRun& run) override {
        inner_->noteProven(generation, run);
    }
    void noteOldest(const GenerationKey& generation, U32_t id) override {
        inner_->noteOldest(generation, id);
    }
    void setAside(const SeriesKey& key, Aside reason, const NewEvent& event) override {
        inner_->setAside(key, reason, event);
    }
    U64_t removeAside(S64_t before) override { return inner_->removeAside(before); }
    std::optional<SeriesNumber> findSeries(const SeriesKey& key) override {
        return inner_->findSeries(key);
    }
    std::optional<GenerationInfo> newestGeneration(SeriesNumber series) override {
        return inner_->newestGeneration(series);
    }
    std::optional<StoredEvent> findEvent(const GenerationKey& generation, EMP_INQUIRY_TYPE_e type,
                                         U32_t id) override {
        return inner_->findEvent(generation, type, id);
    }
    std::optional<StoredEvent> heldEvent(const GenerationKey& generation, U32_t id) override {
        return inner_->heldEvent(generation, id);
    }
    std::optional<StoredEvent> oldestEvent(const GenerationKey& generation) override {
        return inner_->oldestEvent(generation);
    }
    std::optional<U32_t> highestId(const GenerationKey& generation) override {
        return inner_->highestId(generation);
    }
    U32_t endOfRun(const GenerationKey& generation, U32_t from) override {
        return inner_->endOfRun(generation, from);
    }
    U64_t rowCount() override { return inner_->rowCount(); }
    std::vector<GenerationInfo> listGenerations() override { return inner_->listGenerations(); }
    void forEachRun(const GenerationKey& generation, U32_t from,
                    const std::function<void(const IdRun&)>& take) override {
        inner_->forEachRun(generation, from, take);
    }
    void forEachEvent(const GenerationKey& generation,
                      const std::function<void(const StoredEvent&)>& take) override {
        inner_->forEachEvent(generation, take);
    }
    void forEachAside(const std::function<void(const AsideEvent&)>& take) override {
        inner_->forEachAside(take);
    }
    // As an engine does that sends what waits with the next question.
    U64_t bytesUsed() override {
        if (failures_ == LOOKS_FAIL) {
            throw StoreError("away", StoreError::Kind::PASSING);
        }
        if (failures_ == LOOKS_MEET_OTHERS) {
            failures_ = 0;
            throw StoreConflict();
        }
        return inner_->bytesUsed();
    }

    static constexpr int REFUSES = -2;
    static constexpr int LOOKS_FAIL = 1000;
    static constexpr int LOOKS_MEET_OTHERS = 1001;
    static constexpr int COMMIT_IS_NOT_TOLD = 1002;

    int commits() const { return commits_; }

  private:
    std::atomic<int>& good_;     ///< commits that succeed first
    std::atomic<int>& failures_; ///< commits that fail; below 0: all, for good
    std::atomic<int> commits_ = 0;
    std::unique_ptr<Store> inner_ = openArchiveInMemory();
};

/** A shared storage whose commits meet the work of others, so many times. */
class CrowdedStore : public MemoryStore {
  public:
    CrowdedStore(MemoryDatabase& database, int times) : MemoryStore(database, true), left_(times) {}

    void commit() override {
        if (left_ > 0) {
            --left_;
            throw StoreConflict();
        }
        MemoryStore::commit();
    }

  private:
    int left_;
};

class LaneTest : public LaneFixture {
  protected:
    using LaneFixture::start;
    void start(const LaneSettings& settings = {}) {
        start(std::make_unique<LockableStore>(good_, failures_), settings);
    }

    std::atomic<int> good_ = 0;
    std::atomic<int> failures_ = 0;
};

} // namespace

TEST_F(LaneTest, StatusAnswersComeAfterTheCommitOfAllBeforeThem) {
    start();
    addStatus();
    addEvents(0, 9);
    addStatus();
    submit();
    const auto replies = waitForReplies(2);
    EXPECT_EQ(replies[0].verdict, NOTHING_HELD);
    EXPECT_EQ(replies[1].verdict, (StatusVerdict{8, 0}));
    EXPECT_TRUE(lane_->stop(std::chrono::seconds(5)));
    EXPECT_EQ(lane_->state().counts.stored, 10U);
    EXPECT_EQ(lane_->state().spooled, 0U);
    EXPECT_EQ(lane_->state().lag, 0);
}

TEST_F(LaneTest, FailedCommitIsDoneAgainAndNothingIsAnsweredTwice) {
    failures_ = 3;
    start();
    addStatus();
    addEvents(0, 9);
    batch_.add(1, Batch::Kind::INQUIRY, inquiryBody(LAST, {}, 0));
    addStatus();
    submit();
    waitForReplies(3);
    EXPECT_TRUE(lane_->stop(std::chrono::seconds(5)));
    const auto replies = waitForReplies(3);
    ASSERT_EQ(replies.size(), 3U);
    EXPECT_EQ(replies[0].event->sequenceId, 9U); // an inquiry waits for no commit
    EXPECT_EQ(replies[2].verdict, (StatusVerdict{8, 0}));
    EXPECT_EQ(lane_->state().counts.stored, 10U);
    EXPECT_THAT(said_, HasSubstr("locked; events wait"));
    EXPECT_THAT(said_, HasSubstr("can be written again"));
}

TEST_F(LaneTest, FailureBetweenTwoCommitsOfOneBatchRepeatsOnlyTheRest) {
    LaneSettings settings;
    settings.batch = 4;
    start(settings);
    addEvents(0, 9);
    addStatus();
    good_ = 1;
    failures_ = 1;
    submit();
    EXPECT_EQ(waitForReplies(1)[0].verdict, (StatusVerdict{8, 0}));
    EXPECT_TRUE(lane_->stop(std::chrono::seconds(5)));
    EXPECT_EQ(lane_->state().counts.stored, 10U);
    EXPECT_EQ(lane_->state().counts.duplicates, 0U);
}

// A server can be too slow for as many as before.
TEST_F(LaneTest, FailedTransactionIsDoneAgainInSmallerOnes) {
    failures_ = 2;
    auto store = std::make_unique<LockableStore>(good_, failures_);
    const LockableStore& commits = *store;
    start(std::move(store), {});
    addEvents(0, 999);
    submit();
    requireSoon([this] { return lane_->state().counts.stored == 1000 && lane_->spooled() == 0; },
                "all to be safe");
    EXPECT_EQ(commits.commits(), 3); // 250, 500, the rest
    EXPECT_TRUE(lane_->stop(std::chrono::seconds(5)));
}

TEST_F(LaneTest, StorageThatIsAwayKeepsTheWorkAndTheCount) {
    failures_ = 900;
    start();
    addEvents(0, 9);
    const std::size_t size = batch_.size();
    submit();
    requireSoon([this] { return lane_->state().isAway; }, "the storage is away");
    EXPECT_EQ(lane_->state().spooled, size);
    const double lag = lane_->state().lag;
    EXPECT_GT(lag, 0);
    addEvents(10, 10);
    submit(); // it is the oldest that counts
    EXPECT_GE(lane_->state().lag, lag);
    EXPECT_FALSE(lane_->stop(std::chrono::milliseconds(0)));
    EXPECT_EQ(lane_->state().counts.stored, 0U);
}

TEST_F(LaneTest, LastingFailureEndsTheLaneAndIsTold) {
    failures_ = -1;
    start();
    addEvents(0, 9);
    addStatus();
    submit();
    requireSoon(
        [this] {
            const std::lock_guard lock(mutex_);
            return !failed_.empty();
        },
        "the failure");
    EXPECT_EQ(failed_, "broken");
    EXPECT_FALSE(lane_->stop(std::chrono::seconds(5)));
    EXPECT_TRUE(replies_.empty());
}

TEST_F(LaneTest, RefusedStatementEndsNoLaneAndItsWorkIsDoneOnceItIsAllowed) {
    failures_ = LockableStore::REFUSES;
    start();
    addEvents(0, 9);
    addStatus();
    submit();
    requireSoon([this] { return lane_->state().isRefused; }, "the refusal");
    EXPECT_FALSE(lane_->state().canFile);
    EXPECT_TRUE(replies_.empty());
    failures_ = 0;
    waitForReplies(1);
    EXPECT_FALSE(lane_->state().isRefused);
    EXPECT_TRUE(lane_->state().canFile);
    EXPECT_TRUE(lane_->stop(std::chrono::seconds(5)));
    EXPECT_EQ(lane_->state().counts.stored, 10U);
    EXPECT_EQ(failed_, "");
    EXPECT_THAT(said_, testing::StartsWith("not allowed; refused until that is set right"));
}

TEST_F(LaneTest, TimesOfCommitsAreCountedByClasses) {
    Times times;
    for (const double seconds : {0.0005, 0.001, 0.0011, 2.5, 3.0}) {
        times.add(seconds);
    }
    EXPECT_EQ(times.counts.front(), 2U);
    EXPECT_EQ(times.counts[1], 1U);
    EXPECT_EQ(times.counts[Times::BOUNDS.size() - 1], 1U);
    EXPECT_EQ(times.counts.back(), 1U);
    start();
    addEvents(0, 9);
    addStatus();
    submit();
    waitForReplies(1);
    EXPECT_TRUE(lane_->stop(std::chrono::seconds(5)));
    const LaneState state = lane_->state();
    EXPECT_GT(state.commits, 0U);
    EXPECT_EQ(
        std::accumulate(state.commitTimes.counts.begin(), state.commitTimes.counts.end(), U64_t{0}),
        state.commits);
}

TEST_F(LaneTest, StorageThatIsAwayWhenOnlyItsSizeIsAskedForIsAskedAgain) {
    good_ = 1;
    failures_ = LockableStore::LOOKS_FAIL;
    start();
    addStatus();
    submit();
    waitForReplies(1);
    requireSoon([this] { return lane_->state().isAway; }, "the look to fail");
    failures_ = 0;
    addEvents(0, 0);
    addStatus();
    submit();
    waitForReplies(2);
    EXPECT_FALSE(lane_->state().isAway);
    EXPECT_TRUE(lane_->stop(std::chrono::seconds(5)));
    EXPECT_EQ(failed_, "");
}

TEST_F(LaneTest, LookThatMeetsTheWorkOfOthersEndsNoLane) {
    failures_ = LockableStore::LOOKS_MEET_OTHERS;
    good_ = 10;
    start();
    addStatus();
    submit();
    requireSoon([this] { return failures_ == 0; }, "the look");
    addEvents(0, 4);
    addStatus();
    submit();
    waitForReplies(2);
    EXPECT_TRUE(lane_->stop(std::chrono::seconds(5)));
    EXPECT_EQ(lane_->state().counts.stored, 5U);
    EXPECT_EQ(failed_, "");
}

TEST_F(LaneTest, WorkOfOthersThatIsMetAgainAndAgainIsSaid) {
    MemoryDatabase database;
    start(std::make_unique<CrowdedStore>(database, 10), {});
    addStatus();
    addEvents(0, 4);
    addStatus();
    submit();
    EXPECT_EQ(waitForReplies(2)[1].verdict, (StatusVerdict{3, 0}));
    EXPECT_TRUE(lane_->stop(std::chrono::seconds(5)));
    EXPECT_THAT(said_, HasSubstr("what waits has met the work of others 10 times in a row"));
    EXPECT_EQ(lane_->state().counts.stored, 5U);
}

TEST_F(LaneTest, StorageThatIsAwayAtTheEndOfAnIdleLaneIsNoFailure) {
    good_ = 1;
    start();
    addEvents(0, 4);
    addStatus();
    submit();
    waitForReplies(1);
    failures_ = 1; // the runs cannot be written
    EXPECT_TRUE(lane_->stop(std::chrono::seconds(5)));
    EXPECT_EQ(failed_, "");
}

TEST_F(LaneTest, OpenedGenerationAsksTheBladeToSendAgain) {
    start();
    addStatus();
    addEvents(0, 9);
    batch_.add(1, Batch::Kind::EVENT, eventBody({.id = 5, .time = 2000}));
    submit();
    EXPECT_EQ(waitForReplies(2)[1].kind, Reply::Kind::RESEND);
}

// The commit was done, and nobody was told so: the same again is a duplicate, and opens nothing.
TEST_F(LaneTest, OpenedGenerationAsksForItAlsoWhenItsCommitIsNotTold) {
    start();
    addEvents(0, 4);
    addStatus();
    submit();
    waitForReplies(1);
    failures_ = LockableStore::COMMIT_IS_NOT_TOLD;
    batch_.add(1, Batch::Kind::EVENT, eventBody({.id = 4, .time = 2000}));
    submit();
    EXPECT_EQ(waitForReplies(2)[1].kind, Reply::Kind::RESEND);
    EXPECT_TRUE(lane_->stop(std::chrono::seconds(5)));
    EXPECT_EQ(failures_, 0);
}

TEST_F(LaneTest, BatchEndsWithSoManyBytes) {
    LaneSettings settings;
    settings.batchBytes = 1000;
    auto store = std::make_unique<LockableStore>(good_, failures_);
    const LockableStore& watched = *store;
    start(std::move(store), settings);
    addEvents(0, 19); // of 155 bytes: seven are too many
    submit();
    requireSoon([&] { return watched.commits() >= 3; }, "commits");
    EXPECT_TRUE(lane_->stop(std::chrono::seconds(5)));
    EXPECT_EQ(lane_->state().counts.stored, 20U);
}

// An hour, so that nothing but the end makes it go.
TEST_F(LaneTest, EventsWaitForOthersAsLongAsTheyMay) {
    LaneSettings settings;
    settings.batchWait = std::chrono::hours(1);
    auto store = std::make_unique<LockableStore>(good_, failures_);
    const LockableStore& watched = *store;
    start(std::move(store), settings);
    for (U32_t id = 0; id < 3; ++id) {
        addEvents(id, id);
        batch_.add(1, Batch::Kind::INQUIRY, inquiryBody(LAST, {}, 0));
        submit();
        EXPECT_EQ(waitForReplies(id + 1)[id].event->sequenceId, id);
    }
    EXPECT_EQ(watched.commits(), 0);
    EXPECT_TRUE(lane_->stop(std::chrono::seconds(5)));
    EXPECT_EQ(lane_->state().counts.stored, 3U);
}

TEST_F(LaneTest, FullArchiveClosesTheLink) {
    LaneSettings settings;
    settings.archive.rowLimit = 3;
    start(settings);
    addEvents(0, 3);
    submit();
    EXPECT_EQ(waitForReplies(1)[0].kind, Reply::Kind::FULL);
}

TEST_F(LaneTest, QuotaOfALogKeepsItsNewestEvents) {
    LaneSettings settings;
    settings.retention.bladeQuota = 5;
    start(settings);
    addEvents(0, 20);
    submit();
    requireSoon([this] { return lane_->state().expired == 16; }, "the oldest to go");
    batch_.add(1, Batch::Kind::INQUIRY, inquiryBody(FIRST, {}, 0));
    batch_.add(1, Batch::Kind::STATUS, statusBody({}, 3, {1, 2, 3}));
    submit();
    const auto replies = waitForReplies(2);
    EXPECT_EQ(replies[0].event->sequenceId, 16U);
    EXPECT_EQ(replies[1].verdict, (StatusVerdict{19, 0})); // what has gone counts
}

// Nothing else ends the transaction, as under a load that never does.
TEST_F(LaneTest, QuotaIsKeptAlsoWhileATransactionIsNeverDone) {
    LaneSettings settings;
    settings.retention.bladeQuota = 5;
    settings.batchWait = std::chrono::hours(1);
    start(settings);
    addEvents(0, 20);
    submit();
    requireSoon([this] { return lane_->state().expired == 16; }, "the oldest to go");
}

TEST_F(LaneTest, TakenBackEventIsCommittedAlsoWhenNothingFollows) {
    MemoryDatabase database;
    start(std::make_unique<MemoryStore>(database), {});
    batch_.add(1, Batch::Kind::SILENT, eventBody({.id = 0}));
    submit();
    requireSoon([this] { return lane_->state().spooled == 0; }, "the event to be held");
    batch_.add(1, Batch::Kind::TAKE_BACK, eventBody({.id = 0}));
    batch_.add(1, Batch::Kind::END_OF_LINK, {});
    submit();
    requireSoon([this] { return lane_->state().spooled == 0; }, "it to be taken back");
    EXPECT_EQ(database.aside.size(), 1U);
}

TEST_F(LaneTest, ClaimThatAnotherProcessTookEndsTheLinkAndSetsItsEventsAside) {
    MemoryDatabase database;
    MemoryStore other(database, true);
    start(std::make_unique<MemoryStore>(database, true), {});
    addEvents(0, 4);
    addStatus();
    addEvents(0, 4);
    addStatus();
    submit();
    EXPECT_EQ(waitForReplies(2)[1].verdict, (StatusVerdict{3, 0}));
    requireSoon([this] { return lane_->state().spooled == 0; }, "all to be safe");
    other.claim({{"ENC-A", "BLADE-1", 1}, 1}, 0);
    addEvents(5, 9);
    submit();
    EXPECT_EQ(waitForReplies(3)[2].kind, Reply::Kind::SUPERSEDED);
    EXPECT_TRUE(lane_->stop(std::chrono::seconds(5)));
    EXPECT_EQ(database.aside.size(), 5U);
    EXPECT_EQ(failed_, "");
}
