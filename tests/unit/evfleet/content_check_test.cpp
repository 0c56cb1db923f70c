#include "evfleet/content_check.h"

#include "sqlite_store.h"
#include "temp_directory.h"

#include <gtest/gtest.h>

namespace {

using evarchive::GenerationKey;
using evfleet::CheckResult;
using evfleet::SimulatedLog;

/** An archive of one simulated blade with the events 1 to 5. */
class ContentCheckTest : public testing::Test {
  protected:
    ContentCheckTest() {
        log_.log(4);
        store_->begin();
        const auto series = store_->addSeries({{shape_.enclosure, log_.bladeName(), 0}, 1});
        generation_ = {series, 1};
        store_->addGeneration(generation_, 0);
    }

    evfleet::Bytes imageOf(U32_t id) const {
        evfleet::Bytes image;
        log_.appendEvent(image, id, log_.rebuilt());
        return image;
    }

    void hold(U32_t id, const evfleet::Bytes& image, bool doubtful = false) {
        evarchive::NewEvent event;
        event.doubtful = doubtful;
        event.sequenceId = id;
        event.image = image;
        store_->addEvent(generation_, event);
    }

    void hold(U32_t first, U32_t last) {
        for (U32_t id = first; id <= last; ++id) {
            hold(id, imageOf(id));
        }
    }

    void openGeneration() {
        ++generation_.generation;
        store_->addGeneration(generation_, 0);
    }

    CheckResult check() {
        store_->commit();
        return evfleet::checkContent(path_, shape_.enclosure, 1, [this](U32_t) { return &log_; });
    }

    support::TempDirectory directory_;
    std::string path_ = directory_.file("events.db");
    std::unique_ptr<evarchive::Store> store_ = evarchive::openArchive(path_);
    GenerationKey generation_;
    evfleet::LogShape shape_;
    SimulatedLog log_{shape_, 0};
};

TEST_F(ContentCheckTest, WholeLogIsClean) {
    hold(1, 5);
    const CheckResult result = check();
    EXPECT_TRUE(result.isClean());
    EXPECT_EQ(result.held, 5U);
}

TEST_F(ContentCheckTest, MissingEventIsFound) {
    hold(1, 3);
    hold(5, 5);
    const CheckResult result = check();
    EXPECT_EQ(result.missing, 1U);
    EXPECT_EQ(result.findings, std::vector<std::string>{"SIM-000000: event 4 is missing"});
}

TEST_F(ContentCheckTest, DoubtfulEventIsNeitherCorruptNorTwice) {
    evfleet::Bytes damaged = imageOf(3);
    damaged.back() ^= 1U;
    hold(2, imageOf(2), true);
    hold(3, damaged, true);
    openGeneration();
    hold(1, 5);
    EXPECT_TRUE(check().isClean());
}

TEST_F(ContentCheckTest, DoubtfulEventOfOtherBytesStandsForNone) {
    hold(1, 4);
    evfleet::Bytes damaged = imageOf(5);
    damaged.back() ^= 1U;
    hold(5, damaged, true);
    EXPECT_EQ(check().missing, 1U);
}

TEST_F(ContentCheckTest, ClaimedEventMustBeThereForCertain) {
    hold(1, 2);
    hold(3, imageOf(3), true);
    hold(5, 5);
    log_.noteClaim(2);
    EXPECT_EQ(check().unkept, 0U);
    store_->begin();
    log_.noteClaim(4);
    const CheckResult result = check();
    EXPECT_EQ(result.unkept, 2U);
    EXPECT_EQ(result.missing, 1U) << "the doubtful one is not";
    EXPECT_FALSE(result.isClean());
}

TEST_F(ContentCheckTest, ClaimsEndWithTheLog) {
    hold(1, 5);
    log_.noteClaim(5);
    log_.rebuild();
    const CheckResult result = check();
    EXPECT_EQ(result.unkept, 0U);
    EXPECT_EQ(result.unlooked, 5U) << "and it is said how many they were";
}

// The blade cannot send it again: nothing but this tells that it is gone.
TEST_F(ContentCheckTest, ClaimedEventThatTheLogHasOverwrittenMustBeThereForCertain) {
    log_.noteClaim(4);
    shape_.ring = 3;
    log_.log(2);
    ASSERT_EQ(log_.first(), 5U);
    hold(1, 1);
    hold(3, imageOf(3), true);
    openGeneration();
    hold(4, 7);
    const CheckResult result = check();
    EXPECT_EQ(result.missing, 0U);
    EXPECT_EQ(result.unkept, 2U);
    EXPECT_EQ(result.unlooked, 0U);
    EXPECT_EQ(result.findings.front(),
              "SIM-000000: event 2 was claimed, and is not there for certain");
}

TEST_F(ContentCheckTest, EventsBetweenTwoClaimsWereNotClaimed) {
    log_.noteClaim(2);
    shape_.ring = 2;
    log_.log(2); // 6 and 7
    log_.noteClaim(7);
    hold(1, 2);
    hold(6, 7);
    EXPECT_TRUE(check().isClean());
}

TEST_F(ContentCheckTest, ClaimsTakeLittleRoomAndWhatIsForgottenIsCounted) {
    shape_.ring = 2;
    for (U32_t i = 0; i < 20; ++i) {
        log_.log(4);
        log_.noteClaim(log_.next() - 1);
    }
    EXPECT_EQ(log_.claims().size(), SimulatedLog::MOST_CLAIMS);
    EXPECT_EQ(log_.claimsForgotten(), 2 * (20 - SimulatedLog::MOST_CLAIMS));
}

TEST_F(ContentCheckTest, BladeWithoutAnyEventMissesAll) {
    const CheckResult result =
        evfleet::checkContent(path_, "another enclosure", 1, [this](U32_t) { return &log_; });
    EXPECT_EQ(result.missing, 5U);
    EXPECT_EQ(result.held, 0U);
}

TEST_F(ContentCheckTest, ChangedByteIsFound) {
    hold(1, 4);
    evfleet::Bytes image = imageOf(5);
    image.back() ^= 1;
    hold(5, image);
    const CheckResult result = check();
    EXPECT_EQ(result.corrupt, 1U);
    EXPECT_EQ(result.missing, 1U);
}

TEST_F(ContentCheckTest, EventInTwoGenerationsIsFound) {
    hold(1, 5);
    openGeneration();
    hold(2, 2);
    const CheckResult result = check();
    EXPECT_EQ(result.twice, 1U);
    EXPECT_EQ(result.missing, 4U) << "the newest generation must be whole";
}

TEST_F(ContentCheckTest, RebuiltLogNeedsItsOwnGenerationOnly) {
    hold(1, 3);
    openGeneration();
    log_.rebuild();
    log_.log(2);
    hold(1, 3);
    const CheckResult result = check();
    EXPECT_TRUE(result.isClean());
    EXPECT_EQ(result.held, 6U);
}

} // namespace
