#include "lane.h"

#include "link_messages.h"
#include "memory_store.h"
#include "sqlite_store.h"
#include "wait.h"

#include <gmock/gmock.h>
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

class LaneTest : public testing::Test {
  protected:
    void start(const LaneSettings& settings = {}) {
        start(std::make_unique<LockableStore>(good_, failures_), settings);
    }

    void start(std::unique_ptr<Store> store, const LaneSettings& settings) {
        lane_ = std::make_unique<Lane>(
            std::move(store), settings,
            Lane::Callbacks{[this](const std::vector<Reply>& replies) {
                                const std::lock_guard lock(mutex_);
                                replies_.insert(replies_.end(), replies.begin(), replies.end());
                            },
                            [this](Level, const std::string& line) {
                                const std::lock_guard lock(mutex_);
                                said_ += line + "\n";
                            },
                            [this](const std::string& why) {
                                const std::lock_guard lock(mutex_);
                                failed_ = why;
                            }});
    }

    void addEvents(U32_t first, U32_t last) {
        for (U32_t id = first; id <= last; ++id) {
            batch_.add(1, Batch::Kind::EVENT, eventBody({.id = id}));
        }
    }
    void addStatus() { batch_.add(1, Batch::Kind::STATUS, statusBody({}, 0, {1, 2, 3})); }
    void submit() { lane_->submit(batch_); }

    std::vector<Reply> waitForReplies(size_t count) {
        requireSoon(
            [&] {
                const std::lock_guard lock(mutex_);
                return replies_.size() >= count;
            },
            "replies");
        const std::lock_guard lock(mutex_);
        return replies_;
    }

    std::atomic<int> good_ = 0;
    std::atomic<int> failures_ = 0;
    Batch batch_;
    std::mutex mutex_;
    std::vector<Reply> replies_;
    std::string said_;
    std::string failed_;
    std::unique_ptr<Lane> lane_;
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

namespace {

/** A lane over a storage of which somebody keeps logs locked. */
class LockedLogTest : public LaneTest {
  protected:
    void SetUp() override {
        auto store = std::make_unique<MemoryStore>(database_, true);
        store_ = store.get();
        LaneSettings settings;
        settings.lockPatience = patience_;
        start(std::move(store), settings);
        addStatus(1);
        addStatus(2);
        addEvents(1, 0, 4);
        addEvents(2, 0, 4);
        submit();
        waitForReplies(2);
        requireSoon([this] { return lane_->state().spooled == 0; }, "all to be safe");
    }

    static LogName logOf(LinkNumber link) { return {.blade = "BLADE-" + std::to_string(link)}; }
    static SeriesKey keyOf(LinkNumber link) {
        return {{"ENC-A", "BLADE-" + std::to_string(link), 1}, 1};
    }
    void addStatus(LinkNumber link) {
        batch_.add(link, Batch::Kind::STATUS, statusBody(logOf(link), 0, {1, 2, 3}));
    }
    void addEvents(LinkNumber link, U32_t first, U32_t last) {
        for (U32_t id = first; id <= last; ++id) {
            batch_.add(link, Batch::Kind::EVENT, eventBody({.log = logOf(link), .id = id}));
        }
    }
    void addInquiry(LinkNumber link) {
        batch_.add(link, Batch::Kind::INQUIRY, inquiryBody(LAST, logOf(link), 0));
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
    MemoryDatabase database_;
    MemoryStore* store_ = nullptr;
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
