/** Several archivers on one PostgreSQL server: claims, fences, unknown outcomes, refusals. */
#include "archive.h"
#include "cutting_proxy.h"
#include "fleet_server.h"
#include "postgres/log_number.h"
#include "postgres/pg_engine.h"

#include <numeric>

using namespace evarchive;
using fleet::server;
using support::eventBody;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::ThrowsMessage;

namespace {

class PgStoreTest : public testing::Test {
  protected:
    static void add(Store& store, const GenerationKey& generation, U32_t id, U32_t time = 1000,
                    bool doubtful = false) {
        store.addEvent(generation,
                       {id, eventBody({.id = id, .time = time}), true, doubtful, fleet::NOW});
    }

    static Bytes bodyOf(U32_t id) { return eventBody({.id = id, .time = 1000}); }

    /** A claim, and a generation with these events, committed. */
    GenerationKey fill(Store& store, const std::vector<U32_t>& ids) {
        const Claim claim = store.claim(key_, 0);
        const GenerationKey generation{claim.series, 1};
        store.begin();
        if (!claim.newest) {
            store.addGeneration(generation, fleet::NOW);
        }
        for (const U32_t id : ids) {
            add(store, generation, id);
        }
        store.commit();
        return generation;
    }

    static std::vector<S64_t> lostAt(Store& store) {
        try {
            store.commit();
        } catch (const StoreConflict& conflict) {
            store.rollback();
            return conflict.lost();
        }
        ADD_FAILURE() << "it was committed";
        return {};
    }

    static U64_t count(const std::string& table) {
        return std::stoull(server().sql("SELECT count(*) FROM " + table, "contract"));
    }

    /** Statements that the archive's server was sent so far. */
    static U64_t callsOf(const std::string& like) {
        static const bool isThere = [] {
            server().sql("CREATE EXTENSION IF NOT EXISTS pg_stat_statements", "contract");
            return true;
        }();
        return isThere ? std::stoull(server().sql("SELECT coalesce(sum(calls), 0) FROM "
                                                  "pg_stat_statements WHERE query LIKE '" +
                                                      like + "'",
                                                  "contract"))
                       : 0;
    }

    std::string place_ = fleet::emptyArchive();
    std::unique_ptr<Store> store_ = openPgArchive(place_);
    std::unique_ptr<Store> other_ = openPgArchive(place_);
    SeriesKey key_{{"ENC-A", "BLADE-1", 1}, 1};
};

} // namespace

TEST_F(PgStoreTest, ClaimTellsWhatOthersHaveFiled) {
    EXPECT_EQ(store_->claim(key_, 0).newest, std::nullopt);
    const GenerationKey generation = fill(*other_, {0, 1});
    const Claim claim = store_->claim(key_, 0);
    EXPECT_EQ(claim.series, generation.series);
    EXPECT_EQ(claim.newest->number, generation);
}

TEST_F(PgStoreTest, HandshakeLearnsAllItAsksWithItsClaim) {
    const GenerationKey generation = fill(*other_, {0, 1, 2, 5});
    const U64_t asked = callsOf("% FROM events %");
    const Claim claim = store_->claim(key_, 1);
    EXPECT_EQ(claim.newest->highest, 5U);
    EXPECT_EQ(claim.newest->proven, (IdRun{0, 2}));
    EXPECT_EQ(store_->heldEvent(generation, 1)->image, eventBody({.id = 1}));
    EXPECT_EQ(callsOf("% FROM events %") - asked, 1U);
}

TEST_F(PgStoreTest, HandshakeLearnsThatItsFirstIdIsNotHeld) {
    const GenerationKey generation = fill(*other_, {4});
    store_->claim(key_, 2);
    const U64_t asked = callsOf("% FROM events %");
    EXPECT_EQ(store_->heldEvent(generation, 2), std::nullopt);
    EXPECT_EQ(callsOf("% FROM events %"), asked);
}

TEST_F(PgStoreTest, HandshakeWritesDownTheOldestIdOfTheBlade) {
    store_->claim(key_, 17);
    EXPECT_EQ(server().sql("SELECT ring_first FROM logs", "contract"), "17\n");
    store_->claim(key_, 23);
    EXPECT_EQ(server().sql("SELECT ring_first FROM logs", "contract"), "23\n");
}

// What the log's row says, batch by batch.
TEST_F(PgStoreTest, RunGrowsWithEachBatchAndEndsBeforeAHole) {
    for (const auto& [ids, run] : {std::pair(std::vector<U32_t>{3, 4}, IdRun{3, 4}),
                                   {{5}, {3, 5}},
                                   {{8, 9}, {3, 5}},
                                   {{6}, {3, 6}}}) {
        fill(*store_, ids);
        EXPECT_EQ(other_->claim(key_, 3).newest->proven, run);
    }
    EXPECT_EQ(store_->claim(key_, 3).newest->highest, 9U);
}

TEST_F(PgStoreTest, RunDoesNotTakeInWhatIsDoubtfulUntilItIsConfirmed) {
    const GenerationKey generation = fill(*store_, {0});
    store_->begin();
    add(*store_, generation, 1, 1000, true);
    store_->commit();
    EXPECT_EQ(other_->claim(key_, 0).newest->proven, (IdRun{0, 0}));
    EXPECT_EQ(other_->claim(key_, 0).newest->highest, 1U);
    other_->begin();
    other_->confirmEvent(generation, bodyOf(1));
    other_->commit();
    EXPECT_EQ(store_->claim(key_, 0).newest->proven, (IdRun{0, 1}));
}

// As of many blades that log slowly: each event is filed before anything is seen behind it.
TEST_F(PgStoreTest, DoubtfulEventsOfABatchAreConfirmedByOneStatement) {
    const GenerationKey generation = fill(*store_, {0});
    store_->begin();
    for (U32_t id = 1; id <= 50; ++id) {
        add(*store_, generation, id, 1000, true);
    }
    store_->commit();
    const std::vector<std::string> statements = {"UPDATE logs l SET seen%", "UPDATE events %",
                                                 "% FROM events %"};
    std::vector<U64_t> before;
    for (const std::string& statement : statements) {
        before.push_back(callsOf(statement));
    }
    store_->begin();
    for (U32_t id = 1; id <= 50; ++id) {
        store_->confirmEvent(generation, bodyOf(id));
    }
    store_->commit();
    EXPECT_EQ(callsOf(statements[0]) - before[0], 1U) << "fences";
    EXPECT_EQ(callsOf(statements[1]) - before[1], 1U) << "confirmations";
    EXPECT_EQ(callsOf(statements[2]) - before[2], 0U) << "looks";
    EXPECT_EQ(count("events WHERE doubtful"), 0U);
    EXPECT_EQ(other_->claim(key_, 0).newest->proven, (IdRun{0, 50}));
}

TEST_F(PgStoreTest, EventThatIsConfirmedInItsOwnBatchIsFiledAsCertain) {
    const GenerationKey generation = fill(*store_, {0});
    const U64_t asked = callsOf("UPDATE events%");
    store_->begin();
    add(*store_, generation, 2, 1000, true);
    add(*store_, generation, 1, 1000, true);
    store_->confirmEvent(generation, bodyOf(1));
    store_->commit();
    EXPECT_EQ(callsOf("UPDATE events%"), asked);
    EXPECT_FALSE(store_->heldEvent(generation, 1)->doubtful);
    EXPECT_TRUE(store_->heldEvent(generation, 2)->doubtful);
    EXPECT_EQ(other_->claim(key_, 0).newest->proven, (IdRun{0, 1}));
}

TEST_F(PgStoreTest, ConfirmationBehindALaterClaimLosesTheClaim) {
    const GenerationKey generation = fill(*store_, {0});
    store_->begin();
    add(*store_, generation, 1, 1000, true);
    store_->commit();
    other_->claim(key_, 0);
    store_->begin();
    store_->confirmEvent(generation, bodyOf(1));
    EXPECT_THAT(lostAt(*store_), ElementsAre(generation.series));
    EXPECT_TRUE(store_->heldEvent(generation, 1)->doubtful);
}

TEST_F(PgStoreTest, ConfirmationMeetsWhatAVisitorHasReplaced) {
    const GenerationKey generation = fill(*store_, {0});
    store_->begin();
    add(*store_, generation, 1, 1000, true);
    store_->commit();
    other_->begin();
    other_->removeEvent(generation, 1);
    add(*other_, generation, 1, 2000, true);
    other_->commit();
    store_->begin();
    store_->confirmEvent(generation, bodyOf(1));
    EXPECT_THAT(lostAt(*store_), ElementsAre());
    EXPECT_TRUE(store_->heldEvent(generation, 1)->doubtful);
}

TEST_F(PgStoreTest, ConfirmationOfAnEventThatIsGoneIsAConflict) {
    const GenerationKey generation = fill(*store_, {0});
    store_->begin();
    add(*store_, generation, 1, 1000, true);
    store_->commit();
    server().sql("DELETE FROM events WHERE id = 1", "contract");
    store_->begin();
    store_->confirmEvent(generation, bodyOf(1));
    EXPECT_THAT(lostAt(*store_), ElementsAre());
}

TEST_F(PgStoreTest, DuplicatesOfManyLogsAreCountedByOneStatementBehindTheFence) {
    const GenerationKey generation = fill(*store_, {0});
    const SeriesKey another{{"ENC-A", "BLADE-2", 1}, 1};
    const GenerationKey foreign{other_->claim(another, 0).series, 1};
    other_->begin();
    other_->addGeneration(foreign, fleet::NOW);
    other_->commit();
    const U64_t asked = callsOf("UPDATE generations g SET duplicates%");
    store_->begin();
    store_->countDuplicates(generation, 1);
    store_->countDuplicates(foreign, 3);
    store_->countDuplicates(generation, 1);
    store_->commit();
    EXPECT_EQ(callsOf("UPDATE generations g SET duplicates%") - asked, 1U);
    EXPECT_EQ(server().sql("SELECT duplicates FROM generations ORDER BY 1", "contract"), "2\n3\n");
    EXPECT_EQ(server().sql("SELECT sum(unclaimed) FROM logs", "contract"), "0\n");
    other_->claim(key_, 0);
    store_->begin();
    store_->countDuplicates(generation, 5);
    EXPECT_THAT(lostAt(*store_), ElementsAre(generation.series));
    EXPECT_EQ(server().sql("SELECT sum(duplicates) FROM generations", "contract"), "5\n");
}

TEST_F(PgStoreTest, RunThatIsNotedBehindALaterClaimLosesTheClaim) {
    const GenerationKey generation = fill(*store_, {0, 1, 2});
    store_->begin();
    add(*store_, generation, 3);
    store_->rollback(); // the log's row is to be looked at again
    other_->claim(key_, 0);
    store_->begin();
    store_->noteProven(generation, {0, 9});
    EXPECT_THAT(lostAt(*store_), ElementsAre(generation.series));
}

TEST_F(PgStoreTest, RunEndsBeforeAnEventThatIsRemoved) {
    const GenerationKey generation = fill(*store_, {0, 1, 2, 3});
    store_->begin();
    store_->removeEvent(generation, 2);
    store_->commit();
    EXPECT_EQ(other_->claim(key_, 0).newest->proven, (IdRun{0, 1}));
    EXPECT_EQ(store_->claim(key_, 0).newest->highest, 3U);
}

TEST_F(PgStoreTest, RunThatWasUndoneIsNotWrittenByTheNextBatch) {
    const GenerationKey generation = fill(*store_, {0});
    store_->begin();
    add(*store_, generation, 1);
    store_->highestId(generation); // it is with the server
    store_->rollback();
    store_->begin();
    add(*store_, generation, 3);
    store_->commit();
    EXPECT_EQ(other_->claim(key_, 0).newest->proven, (IdRun{0, 0}));
}

TEST_F(PgStoreTest, NewGenerationBeginsWithoutRunAndHighestId) {
    const GenerationKey generation = fill(*store_, {0, 1, 2});
    store_->begin();
    store_->addGeneration({generation.series, 2}, fleet::NOW);
    add(*store_, {generation.series, 2}, 0);
    store_->commit();
    const Claim claim = other_->claim(key_, 0);
    EXPECT_EQ(claim.newest->number.generation, 2U);
    EXPECT_EQ(claim.newest->highest, 0U);
    EXPECT_EQ(claim.newest->proven, (IdRun{0, 0}));
}

TEST_F(PgStoreTest, UnclaimedEventRaisesTheHighestIdAndNoRun) {
    const GenerationKey generation = fill(*store_, {0});
    other_->begin();
    other_->newestGeneration(generation.series);
    add(*other_, generation, 1, 1000, true);
    other_->commit();
    EXPECT_EQ(store_->claim(key_, 0).newest->highest, 1U);
    EXPECT_EQ(store_->claim(key_, 0).newest->proven, (IdRun{0, 0}));
}

TEST_F(PgStoreTest, RunThatTheBladeSpeaksOfIsTakenFromItsGeneration) {
    const GenerationKey generation = fill(*store_, {50, 51});
    server().sql("UPDATE generations SET run_first = 3, run_last = 9", "contract");
    EXPECT_EQ(other_->claim(key_, 4).newest->proven, (IdRun{3, 9}));
    EXPECT_EQ(other_->claim(key_, 50).newest->proven, (IdRun{50, 51}));
    EXPECT_EQ(generation.generation, 1U);
}

TEST_F(PgStoreTest, HandshakeFollowsALongRunToItsEnd) {
    std::vector<U32_t> ids(200);
    std::iota(ids.begin(), ids.end(), 7U);
    const GenerationKey generation = fill(*other_, ids);
    store_->claim(key_, 7);
    EXPECT_EQ(store_->endOfRun(generation, 7), 206U);
}

TEST_F(PgStoreTest, WhatAHandshakeSawIsForgottenWhenSomethingIsFiled) {
    const GenerationKey generation = fill(*other_, {0});
    store_->claim(key_, 1);
    store_->begin();
    add(*store_, generation, 1);
    EXPECT_EQ(store_->highestId(generation), 1U);
    EXPECT_EQ(store_->endOfRun(generation, 0), 1U);
    EXPECT_NE(store_->heldEvent(generation, 1), std::nullopt);
    store_->rollback();
}

// What is filed waits for a standby, and so for all that came before it; who speaks where does not.
TEST_F(PgStoreTest, ClaimWaitsForNoStandbyAndACommitDoes) {
    const GenerationKey generation = fill(*other_, {0});
    PgStore impatient(place_, {std::chrono::milliseconds(100), std::chrono::milliseconds(100)}, "");
    server().sql("ALTER SYSTEM SET synchronous_standby_names = 'nobody'");
    server().sql("SELECT pg_reload_conf()");
    ASSERT_TRUE(support::waitUntil(
        [] { return server().sql("SHOW synchronous_standby_names") == "nobody\n"; }));
    EXPECT_EQ(impatient.claim(key_, 0).newest->number, generation);
    impatient.begin();
    add(impatient, generation, 1);
    EXPECT_THROW(impatient.commit(), PgError);
    impatient.rollback();
    server().sql("ALTER SYSTEM RESET synchronous_standby_names");
    server().sql("SELECT pg_reload_conf()");
    // What waited is committed now, and no longer in the way of the next test.
    EXPECT_TRUE(support::waitUntil([] {
        return server().sql("SELECT count(*) FROM pg_stat_activity WHERE wait_event = 'SyncRep'") ==
               "0\n";
    }));
}

TEST_F(PgStoreTest, LogThatIsSentAgainIsLookedUpManyIdsAtATime) {
    std::vector<U32_t> ids(1000);
    std::iota(ids.begin(), ids.end(), 0U);
    const GenerationKey generation = fill(*store_, ids);
    const U64_t asked = callsOf("% FROM events %");
    store_->begin();
    for (const U32_t id : ids) {
        ASSERT_EQ(store_->heldEvent(generation, id)->image, eventBody({.id = id})) << id;
    }
    store_->rollback();
    EXPECT_LE(callsOf("% FROM events %") - asked, 6U); // 1, 16, then 256 at a time
}

TEST_F(PgStoreTest, IdThatWasSeenToBeFreeIsSeenToBeTakenOnceItIs) {
    const GenerationKey generation = fill(*store_, {0, 1, 3});
    store_->begin();
    EXPECT_NE(store_->heldEvent(generation, 0), std::nullopt);
    EXPECT_NE(store_->heldEvent(generation, 1), std::nullopt);
    EXPECT_EQ(store_->heldEvent(generation, 2), std::nullopt);
    add(*store_, generation, 2);
    EXPECT_EQ(store_->heldEvent(generation, 2)->image, eventBody({.id = 2}));
    store_->removeEvent(generation, 2);
    EXPECT_EQ(store_->heldEvent(generation, 2), std::nullopt);
    store_->commit();
}

TEST_F(PgStoreTest, WhatWasSeenInATransactionIsLookedAtAgainInTheNext) {
    const GenerationKey generation = fill(*store_, {0, 1});
    store_->begin();
    store_->heldEvent(generation, 0);
    store_->heldEvent(generation, 1);
    store_->rollback();
    server().sql("DELETE FROM events WHERE id = 1", "contract");
    store_->begin();
    EXPECT_EQ(store_->heldEvent(generation, 1), std::nullopt);
    store_->rollback();
}

TEST(LookedUpTest, PagesGrowWhereOneFollowsTheOther) {
    const GenerationKey generation{1, 1};
    LookedUp looked;
    EXPECT_EQ(looked.pageFrom(generation, 7), 1U);
    looked.putPage(generation, 7, 1, {});
    EXPECT_EQ(looked.pageFrom(generation, 9), 1U);
    EXPECT_EQ(looked.pageFrom(generation, 8), 16U);
    looked.putPage(generation, 8, 16, {});
    EXPECT_EQ(looked.pageFrom(generation, 24), 256U);
    looked.putPage(generation, 24, 256, {});
    EXPECT_EQ(looked.pageFrom(generation, 280), 256U);
    EXPECT_EQ(looked.pageFrom({1, 2}, 280), 1U);
}

TEST(LookedUpTest, PageEndsWithTheHighestId) {
    const GenerationKey generation{1, 1};
    LookedUp looked;
    looked.putPage(generation, 0xFFFFFFFC, 1, {});
    EXPECT_EQ(looked.pageFrom(generation, 0xFFFFFFFD), 3U);
    looked.putPage(generation, 0xFFFFFFFD, 3, {});
    EXPECT_NE(looked.find(generation, 0xFFFFFFFF), nullptr);
    EXPECT_EQ(looked.pageFrom(generation, 0), 1U);
}

TEST_F(PgStoreTest, LaterClaimFencesTheEarlierOneOff) {
    const GenerationKey generation = fill(*store_, {0});
    store_->begin();
    add(*store_, generation, 1);
    other_->claim(key_, 0);
    EXPECT_THAT(lostAt(*store_), ElementsAre(generation.series));
    EXPECT_EQ(other_->highestId(generation), 0U);
}

TEST_F(PgStoreTest, FencedOffArchiverOpensNoGeneration) {
    const GenerationKey generation = fill(*store_, {0});
    other_->claim(key_, 0);
    store_->begin();
    EXPECT_THROW(store_->addGeneration({generation.series, 2}, fleet::NOW), StoreConflict);
    store_->rollback();
    EXPECT_EQ(count("generations"), 1U);
}

TEST_F(PgStoreTest, FencedOffArchiverRemovesNothing) {
    const GenerationKey generation = fill(*store_, {0});
    other_->claim(key_, 0);
    store_->begin();
    store_->removeEvent(generation, 0);
    EXPECT_THAT(lostAt(*store_), ElementsAre(generation.series));
    EXPECT_EQ(count("events"), 1U);
}

TEST_F(PgStoreTest, LogsOfOthersAreFiledAllTheSame) {
    const GenerationKey mine = fill(*store_, {0});
    SeriesKey another = key_;
    another.blade.slot = 2;
    std::swap(key_, another);
    const GenerationKey lost = fill(*store_, {0});
    other_->claim(key_, 0);
    store_->begin();
    add(*store_, mine, 1);
    add(*store_, lost, 1);
    EXPECT_THAT(lostAt(*store_), ElementsAre(lost.series));
    store_->begin();
    store_->newestGeneration(mine.series);
    add(*store_, mine, 1);
    store_->commit();
    EXPECT_EQ(store_->highestId(mine), 1U);
}

TEST_F(PgStoreTest, UnclaimedEventIsFiledWhereItsIdIsFree) {
    const GenerationKey generation = fill(*store_, {0});
    other_->begin();
    other_->newestGeneration(generation.series);
    add(*other_, generation, 1, 1000, true);
    other_->commit();
    EXPECT_EQ(store_->highestId(generation), 1U);
}

TEST_F(PgStoreTest, UnclaimedEventMeetsTheOwnersUnderTheSameId) {
    const GenerationKey generation = fill(*store_, {0});
    other_->begin();
    other_->newestGeneration(generation.series);
    add(*other_, generation, 1, 2000, true);
    store_->begin();
    add(*store_, generation, 1);
    store_->commit();
    EXPECT_TRUE(lostAt(*other_).empty());
    EXPECT_EQ(count("events"), 2U);
}

TEST_F(PgStoreTest, OwnerIsToldOfUnclaimedEvents) {
    const GenerationKey generation = fill(*store_, {0});
    other_->begin();
    other_->newestGeneration(generation.series);
    add(*other_, generation, 1, 2000, true);
    other_->commit();
    store_->begin();
    add(*store_, generation, 1);
    EXPECT_TRUE(lostAt(*store_).empty()); // nothing lost, but to be looked at again
    EXPECT_EQ(store_->newestGeneration(generation.series)->number, generation);
    EXPECT_TRUE(store_->heldEvent(generation, 1)->doubtful);
    store_->begin();
    store_->removeEvent(generation, 1);
    add(*store_, generation, 1);
    store_->commit();
    EXPECT_FALSE(store_->heldEvent(generation, 1)->doubtful);
}

TEST_F(PgStoreTest, UnclaimedEventMissesAGenerationThatWasOpenedMeanwhile) {
    const GenerationKey generation = fill(*store_, {0});
    other_->begin();
    other_->newestGeneration(generation.series);
    add(*other_, generation, 5, 1000, true);
    store_->begin();
    store_->addGeneration({generation.series, 2}, fleet::NOW);
    store_->commit();
    EXPECT_TRUE(lostAt(*other_).empty());
}

TEST_F(PgStoreTest, EventIsHeldInAnyGeneration) {
    const GenerationKey generation = fill(*store_, {0, 1});
    store_->begin();
    store_->addGeneration({generation.series, 2}, fleet::NOW);
    store_->commit();
    EXPECT_TRUE(store_->isHeld(generation.series, eventBody({.id = 1})));
    EXPECT_FALSE(store_->isHeld(generation.series, eventBody({.id = 1, .time = 1001})));
    EXPECT_FALSE(store_->isHeld(generation.series, eventBody({.id = 2})));
}

// The commit has happened, its answer never came: the same again finds what is there.
TEST_F(PgStoreTest, RepeatedBatchIsSeenToBeThere) {
    const GenerationKey generation = fill(*store_, {0});
    store_->begin();
    add(*store_, generation, 1);
    store_->commit();
    store_->begin();
    add(*store_, generation, 1);
    EXPECT_TRUE(lostAt(*store_).empty());
    EXPECT_EQ(count("events"), 2U);
}

// The server has committed, the connection ends before it says so.
TEST_F(PgStoreTest, CommitWhoseAnswerNeverCameIsRepeatedWithoutHarm) {
    fleet::CuttingProxy proxy(server().socketDirectory());
    const auto store = openPgArchive(proxy.through(place_));
    Archive archive(*store, {}, [](Level, const std::string&) {});
    const auto request = imageOf<EmpGetEvArchiverStatusMsg_t>(
        support::statusBody({.enclosure = "CUT"}, 0, {1, 2, 3}));
    const auto file = [&](U32_t id) {
        return archive.fileEvent(1, eventBody({.log = {.enclosure = "CUT"}, .id = id}));
    };
    archive.answerStatus(1, request);
    archive.commit();
    file(0);
    archive.commit();
    proxy.cutAtCommit();
    file(1);
    file(2);
    EXPECT_THROW(archive.commit(), StoreError);
    archive.abandon();
    EXPECT_TRUE(proxy.hasCut());
    EXPECT_EQ(count("events"), 3U);
    EXPECT_EQ(file(1), Filed::DUPLICATE);
    EXPECT_EQ(file(2), Filed::DUPLICATE);
    EXPECT_EQ(file(3), Filed::STORED);
    archive.commit();
    EXPECT_EQ(count("events"), 4U);
    EXPECT_EQ(archive.answerStatus(1, request), (StatusVerdict{2, 0}));
}

TEST_F(PgStoreTest, CutConnectionIsPassingAndTheClaimHoldsOn) {
    const GenerationKey generation = fill(*store_, {0});
    store_->begin();
    add(*store_, generation, 1);
    store_->highestId(generation); // it is with the server, not committed
    server().sql("SELECT pg_terminate_backend(pid) FROM pg_stat_activity "
                 "WHERE application_name = 'evarchiver'");
    try {
        store_->commit();
        FAIL() << "there is no connection";
    } catch (const StoreError& error) {
        EXPECT_TRUE(error.isPassing()) << error.what();
    }
    store_->rollback();
    store_->begin();
    EXPECT_EQ(store_->newestGeneration(generation.series)->number, generation);
    EXPECT_EQ(store_->highestId(generation), 0U);
    add(*store_, generation, 1);
    store_->commit();
    EXPECT_EQ(store_->highestId(generation), 1U);
}

// A server that took over without the last commits.
TEST_F(PgStoreTest, LastEventThatIsGoneAfterAReconnectionLosesTheClaim) {
    const GenerationKey generation = fill(*store_, {0, 1});
    server().sql("DELETE FROM events WHERE id = 1; SELECT pg_terminate_backend(pid) FROM "
                 "pg_stat_activity WHERE application_name = 'evarchiver'",
                 "contract");
    EXPECT_THROW(store_->highestId(generation), StoreError);
    try {
        store_->begin();
        FAIL() << "the event is gone";
    } catch (const StoreConflict& conflict) {
        EXPECT_THAT(conflict.lost(), ElementsAre(generation.series));
    }
    EXPECT_NO_THROW(store_->begin());
}

// The server that has taken over is too slow at first: what it may lack is looked at all the same.
TEST_F(PgStoreTest, LookAtTheClaimsThatFailedIsDoneAgain) {
    const GenerationKey generation = fill(*store_, {0, 1});
    PgStore impatient(place_, {std::chrono::milliseconds(200), std::chrono::milliseconds(100)}, "");
    fill(impatient, {2});
    server().sql("DELETE FROM events WHERE id = 2; SELECT pg_terminate_backend(pid) FROM "
                 "pg_stat_activity WHERE application_name = 'evarchiver'",
                 "contract");
    EXPECT_THROW(impatient.highestId(generation), StoreError);
    {
        const support::TempDirectory directory;
        support::Process holder(
            {"psql", "-X", "-c", "BEGIN; LOCK TABLE logs; SELECT pg_sleep(30)", place_},
            directory.file("holder"));
        ASSERT_TRUE(support::waitUntil([] {
            return server().sql(
                       "SELECT count(*) FROM pg_stat_activity WHERE wait_event = 'PgSleep'") ==
                   "1\n";
        }));
        EXPECT_THROW(impatient.begin(), StoreError);
        server().sql(
            "SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE wait_event = 'PgSleep'");
    }
    try {
        impatient.begin();
        FAIL() << "the event is gone";
    } catch (const StoreConflict& conflict) {
        EXPECT_THAT(conflict.lost(), ElementsAre(generation.series));
    }
}

// What a place says of the server's settings is added to what bounds every wait.
TEST_F(PgStoreTest, OptionsOfThePlaceLeaveTheTimeOuts) {
    PgConnection connection(place_ + "?options=-cwork_mem%3D3MB");
    EXPECT_EQ(connection.run({"show1", "SHOW work_mem"}).text(0, 0), "3MB");
    EXPECT_EQ(connection.run({"show2", "SHOW statement_timeout"}).text(0, 0), "1500ms");
}

// Else a line that broke in the middle of a transaction leaves its logs locked for two hours. (What
// is in force on a socket of the file system is 0.)
TEST_F(PgStoreTest, ServerNoticesWithinSecondsThatItsLineIsDead) {
    PgConnection connection(place_);
    EXPECT_EQ(connection
                  .run({"line", "SELECT string_agg(name || ' ' || reset_val, ', ' ORDER BY name) "
                                "FROM pg_settings WHERE source = 'client' AND name LIKE 'tcp%'"})
                  .text(0, 0),
              "tcp_keepalives_count 3, tcp_keepalives_idle 2, tcp_keepalives_interval 1, "
              "tcp_user_timeout 2000");
}

TEST_F(PgStoreTest, ServerOfASpreadArchiveThatIsAwayMayShowLater) {
    const auto away = openPgNode("postgresql://postgres@%2Ftmp%2Fnowhere/x", 0, 2);
    try {
        away->begin();
        FAIL() << "nobody is there";
    } catch (const StoreError& error) {
        EXPECT_TRUE(error.isPassing()) << error.what();
    }
}

TEST_F(PgStoreTest, LogsWithTheSameNumberAreToldApart) {
    const SeriesNumber number = logNumber(identityOf(key_));
    server().sql("INSERT INTO logs (log, identity, enclosure, blade, slot, instance) VALUES (" +
                     std::to_string(number) + ", 'x', 'E', 'B', 1, 1)",
                 "contract");
    EXPECT_EQ(store_->findSeries(key_), std::nullopt);
    const GenerationKey generation = fill(*store_, {0});
    EXPECT_EQ(generation.series, logNumber(identityOf(key_), 1));
    EXPECT_EQ(other_->findSeries(key_), generation.series);
    EXPECT_EQ(other_->heldEvent(generation, 0)->image, eventBody({.id = 0}));
}

TEST_F(PgStoreTest, LogWhoseFirstTransactionWasUndoneIsNamedAgain) {
    for (const bool isUndone : {true, false}) {
        store_->begin();
        EXPECT_EQ(store_->findSeries(key_), std::nullopt);
        const GenerationKey generation{store_->addSeries(key_), 1};
        store_->newestGeneration(generation.series);
        store_->addGeneration(generation, fleet::NOW);
        add(*store_, generation, 0, 1000, true);
        isUndone ? store_->rollback() : store_->commit();
    }
    EXPECT_EQ(count("logs"), 1U);
    EXPECT_EQ(count("events"), 1U);
}

TEST_F(PgStoreTest, EventThatTheEngineRefusesIsSetAsideAndTheOthersAreFiled) {
    server().sql("ALTER TABLE events ADD CONSTRAINT test CHECK (id <> 5) NOT VALID", "contract");
    const GenerationKey generation = fill(*store_, {0});
    store_->begin();
    for (U32_t id = 1; id < 20; ++id) {
        add(*store_, generation, id);
    }
    EXPECT_TRUE(lostAt(*store_).empty());
    store_->begin();
    store_->newestGeneration(generation.series);
    for (U32_t id = 1; id < 20; ++id) {
        add(*store_, generation, id);
    }
    store_->commit();
    server().sql("ALTER TABLE events DROP CONSTRAINT test", "contract");
    EXPECT_EQ(count("events"), 19U);
    EXPECT_EQ(other_->claim(key_, 0).newest->proven, (IdRun{0, 4})); // not what was refused
    EXPECT_EQ(server().sql("SELECT generation FROM set_aside", "contract"), "1\n");
    EXPECT_EQ(store_->endOfRun(generation, 0), 4U);
    std::vector<AsideEvent> aside;
    store_->forEachAside([&](const AsideEvent& event) { aside.push_back(event); });
    ASSERT_EQ(aside.size(), 1U);
    EXPECT_EQ(aside[0].reason, Aside::REFUSED);
    EXPECT_EQ(aside[0].image, eventBody({.id = 5}));
}

TEST_F(PgStoreTest, IdThatIsTakenIsAConflictAndNotRefusedHoweverOftenItIsTried) {
    const GenerationKey generation = fill(*store_, {0});
    for (int tries = 0; tries < 2; ++tries) {
        store_->begin();
        store_->newestGeneration(generation.series);
        add(*store_, generation, 0);
        EXPECT_TRUE(lostAt(*store_).empty());
    }
    EXPECT_EQ(count("set_aside"), 0U);
}

TEST_F(PgStoreTest, EventsOfWildClocksAreFiled) {
    const GenerationKey generation = fill(*store_, {});
    store_->begin();
    add(*store_, generation, 0, 0);
    add(*store_, generation, 1, 0xFFFFFFFF);
    add(*store_, generation, 2, fleet::NOW);
    store_->commit();
    EXPECT_EQ(store_->endOfRun(generation, 0), 2U);
    EXPECT_EQ(store_->heldEvent(generation, 1)->image, eventBody({.id = 1, .time = 0xFFFFFFFF}));
    EXPECT_EQ(count("events_default"), 2U);
}

TEST_F(PgStoreTest, LayoutThatIsNotKnownIsRefusedBeItOlderOrNewer) {
    const S64_t newer = PG_LAYOUT + 1;
    for (const S64_t layout : {S64_t{1}, newer}) {
        server().sql("UPDATE meta SET value = '" + std::to_string(layout) +
                         "' WHERE name = 'layout'",
                     "contract");
        EXPECT_THAT([this] { openPgArchive(place_); },
                    ThrowsMessage<StoreError>(HasSubstr("layout " + std::to_string(layout) +
                                                        " of the archive is not known")));
    }
    server().sql("UPDATE meta SET value = '" + std::to_string(PG_LAYOUT) +
                     "' WHERE name = 'layout'",
                 "contract");
}

TEST_F(PgStoreTest, DatabaseWithoutAnArchiveIsRefused) {
    EXPECT_THAT([] { openPgArchive(server().place()); },
                ThrowsMessage<StoreError>(HasSubstr("no event archive")));
}

TEST_F(PgStoreTest, ServerThatIsNotThereIsSaid) {
    EXPECT_THROW(openPgArchive("postgresql://postgres@%2Ftmp%2Fnowhere/x"), StoreError);
    EXPECT_THROW(openPgArchive("postgresql://?nonsense=1"), StoreError);
}

TEST_F(PgStoreTest, ManyClaimsAreLookedUpInPieces) {
    std::vector<S64_t> series;
    for (U32_t slot = 0; slot < 600; ++slot) {
        series.push_back(store_->claim({{"ENC-A", "BLADE-1", slot}, 1}, 0).series);
    }
    server().sql("UPDATE logs SET epoch = epoch + 1 WHERE slot IN (0, 300, 599); "
                 "SELECT pg_terminate_backend(pid) FROM pg_stat_activity "
                 "WHERE application_name = 'evarchiver'",
                 "contract");
    EXPECT_THROW(store_->highestId({series[0], 1}), StoreError);
    try {
        store_->begin();
        FAIL() << "three claims are lost";
    } catch (const StoreConflict& conflict) {
        EXPECT_THAT(conflict.lost(),
                    testing::UnorderedElementsAre(series[0], series[300], series[599]));
    }
}
