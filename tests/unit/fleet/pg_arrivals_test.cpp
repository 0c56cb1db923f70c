/** The events of a server in the order in which they came. */
#include "fleet_server.h"
#include "postgres/pg_arrivals.h"
#include "wait.h"

#include <algorithm>
#include <numeric>

using namespace evarchive;
using fleet::server;
using support::eventBody;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr S64_t SECOND = 1'000'000;

class PgArrivalsTest : public testing::Test {
  protected:
    void open(Received received) {
        store_ = openPgArchive(place_, received);
        const Claim claim = store_->claim({{"ENC-A", "BLADE-1", 1}, 1}, 0);
        generation_ = {claim.series, 1};
        store_->begin();
        store_->addGeneration(generation_, 0);
        store_->commit();
    }

    void file(U32_t first, U32_t last, S64_t received, bool own = true, bool isDoubtful = false) {
        store_->begin();
        for (U32_t id = first; id <= last; ++id) {
            store_->addEvent(generation_,
                             {id, eventBody({.id = id, .time = 1000}), own, isDoubtful, received});
        }
        store_->commit();
    }

    /** The ids of what comes at once. */
    std::vector<U32_t> ids(PgArrivals& arrivals, std::size_t most = 500) {
        std::vector<U32_t> found;
        const auto events = arrivals.take(at_, most);
        EXPECT_LE(events.size(), most);
        for (const ArrivedEvent& event : events) {
            EXPECT_EQ(event.image, eventBody({.id = event.sequenceId, .time = 1000}));
            found.push_back(event.sequenceId);
        }
        return found;
    }

    /** Of all that there is by now. The server's own upkeep may hold things up for a moment. */
    std::vector<U32_t> allIds(PgArrivals& arrivals, std::size_t most = 500, S64_t lag = 0) {
        const S64_t begun = arrivals.now() - lag;
        std::vector<U32_t> found;
        EXPECT_TRUE(support::waitUntil([&] {
            std::ranges::copy(ids(arrivals, most), std::back_inserter(found));
            return at_.received >= begun;
        }));
        return found;
    }

    /** Files a copy of event 1 by hand. @param received SQL */
    std::string copy(U32_t id, const std::string& received) const {
        return "INSERT INTO events SELECT log, " + std::to_string(id) + ", time, " + received +
               ", generation, event, source, type, category, idversion, own, doubtful, head, data "
               "FROM events WHERE id = 1";
    }

    std::string place_ = fleet::emptyArchive();
    std::unique_ptr<Store> store_;
    GenerationKey generation_;
    ArrivalPlace at_;
};

TEST_F(PgArrivalsTest, WhatACommitBringsLateComesBeforeWhatIsBehindIt) {
    open(Received::BY_SERVER);
    file(1, 1, 0);
    PgArrivals arrivals(place_, std::chrono::seconds(0));
    EXPECT_THAT(allIds(arrivals), ElementsAre(1));
    PgConnection late(place_, PgPatience::endless());
    late.execute("BEGIN");
    late.execute(copy(7, "clock_timestamp()"));
    file(2, 3, 0);
    EXPECT_THAT(ids(arrivals), IsEmpty()) << "they are behind what may still come";
    EXPECT_TRUE(arrivals.waitsSince());
    late.execute("COMMIT");
    EXPECT_THAT(allIds(arrivals), ElementsAre(7, 2, 3));
}

TEST_F(PgArrivalsTest, ATransactionThatIsUndoneHoldsUpNothingAnyMore) {
    open(Received::BY_SERVER);
    file(1, 1, 0);
    PgArrivals arrivals(place_, std::chrono::seconds(0));
    PgConnection late(place_, PgPatience::endless());
    late.execute("BEGIN");
    late.execute(copy(7, "clock_timestamp()"));
    file(2, 2, 0);
    EXPECT_THAT(ids(arrivals), IsEmpty());
    late.execute("ROLLBACK");
    EXPECT_THAT(allIds(arrivals), ElementsAre(1, 2));
}

TEST_F(PgArrivalsTest, AClockThatIsSetBackByLessThanTheLagLosesNothing) {
    open(Received::AS_TOLD);
    file(1, 1, fleet::NOW);
    PgArrivals arrivals(place_, std::chrono::hours(1));
    EXPECT_THAT(allIds(arrivals, 500, 3600 * SECOND), ElementsAre(1));
    server().sql(copy(2, "clock_timestamp()"), "contract");
    EXPECT_THAT(ids(arrivals), IsEmpty()) << "too new by an hour";
    server().sql(copy(3, "'2000-01-01 00:00:00+00'::timestamptz + interval '1 microsecond' * " +
                             std::to_string(arrivals.complete())),
                 "contract");
    EXPECT_THAT(allIds(arrivals, 500, 3600 * SECOND), ElementsAre(3));
}

TEST_F(PgArrivalsTest, EventsOfOneInstantArePagedThrough) {
    open(Received::AS_TOLD);
    file(1, 450, fleet::NOW);
    PgArrivals arrivals(place_, std::chrono::seconds(1));
    std::vector<U32_t> all(450);
    std::iota(all.begin(), all.end(), 1U);
    EXPECT_EQ(allIds(arrivals, 100, SECOND), all);
}

TEST_F(PgArrivalsTest, EventsThatCameYearsApartAreAllFound) {
    open(Received::AS_TOLD);
    file(1, 2, 5);
    file(3, 3, 1'000'000'000);
    file(4, 5, 1'000'000'001);
    file(6, 6, fleet::NOW);
    PgArrivals arrivals(place_, std::chrono::seconds(1));
    EXPECT_THAT(allIds(arrivals, 2, SECOND), ElementsAre(1, 2, 3, 4, 5, 6));
}

TEST_F(PgArrivalsTest, ADoubtfulEventComesWhenItIsConfirmedAndAStrangersOneNever) {
    open(Received::BY_SERVER);
    file(1, 1, 0, true, true);
    file(2, 2, 0, false);
    file(3, 3, 0);
    PgArrivals arrivals(place_, std::chrono::seconds(0));
    EXPECT_THAT(allIds(arrivals), ElementsAre(3));
    store_->begin();
    store_->confirmEvent(generation_, eventBody({.id = 1}));
    store_->commit();
    EXPECT_THAT(allIds(arrivals), ElementsAre(1));
}

TEST_F(PgArrivalsTest, AnEventComesWhenTheServerSaysWhateverTheArchiversClock) {
    open(Received::BY_SERVER);
    file(1, 1, 17);
    EXPECT_EQ(server().sql("SELECT received BETWEEN clock_timestamp() - interval '1 hour' AND "
                           "clock_timestamp() FROM events",
                           "contract"),
              "t\n");
}

TEST_F(PgArrivalsTest, AnArchiveWithoutAnEventHasNone) {
    PgArrivals arrivals(place_, std::chrono::seconds(1));
    EXPECT_THAT(ids(arrivals), IsEmpty());
}

} // namespace
