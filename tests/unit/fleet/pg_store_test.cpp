/** An archiver on a PostgreSQL server: what handshakes learn, runs, confirmations, what is looked
 * up. */
#include "pg_store_fixture.h"
#include "postgres/log_number.h"

#include <future>

using namespace evarchive;
using fleet::PgStoreTest;
using fleet::server;
using support::eventBody;
using testing::ElementsAre;

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

TEST_F(PgStoreTest, HandshakesOfManyLogsAreAnsweredInTheOrderInWhichTheyAreAsked) {
    const GenerationKey generation = fill(*store_, {0, 1});
    std::vector<Claimant> claimants;
    for (U32_t slot = 9; slot > 0; --slot) {
        claimants.push_back({key_, slot == 1 ? 1U : 0U});
        claimants.back().key.blade.slot = slot;
    }
    const auto claims = other_->claimAll(claimants);
    EXPECT_EQ(server().sql("SELECT count(DISTINCT xmin::text) FROM logs", "contract"), "1\n");
    ASSERT_EQ(claims.size(), 9U);
    for (std::size_t i = 0; i < 9; ++i) {
        EXPECT_EQ(other_->findSeries(claimants[i].key), claims[i].series);
        EXPECT_EQ(claims[i].newest.has_value(), i == 8);
    }
    EXPECT_EQ(claims[8].newest->highest, 1U);
    const U64_t asked = callsOf("SELECT%FROM events%");
    EXPECT_EQ(other_->heldEvent(generation, 1)->image, bodyOf(1));
    EXPECT_EQ(callsOf("SELECT%FROM events%"), asked);
    EXPECT_EQ(server().sql("SELECT count(*), sum(epoch) FROM logs", "contract"), "9|10\n");
    store_->begin();
    add(*store_, generation, 2);
    EXPECT_THAT(lostAt(*store_), ElementsAre(generation.series));
}

TEST_F(PgStoreTest, HandshakeOfALogWhoseNumberIsTakenGoesWithOthers) {
    SeriesKey another = key_;
    another.blade.slot = 2;
    const SeriesNumber number = logNumber(identityOf(key_));
    server().sql("INSERT INTO logs (log, identity, enclosure, blade, slot, instance) VALUES (" +
                     std::to_string(number) + ", 'x', 'E', 'B', 1, 1)",
                 "contract");
    const auto claims = store_->claimAll({{key_, 0}, {another, 0}});
    EXPECT_EQ(claims[0].series, logNumber(identityOf(key_), 1));
    EXPECT_EQ(claims[1].series, logNumber(identityOf(another)));
    EXPECT_EQ(server().sql("SELECT sum(epoch) FROM logs WHERE epoch < 2", "contract"), "2\n");
}

// Whatever order the blades come in: else each would wait for the other one.
TEST_F(PgStoreTest, TwoArchiversClaimTheSameLogsAtOnce) {
    std::vector<Claimant> claimants;
    for (U32_t slot = 1; slot <= 30; ++slot) {
        claimants.push_back({key_, 0});
        claimants.back().key.blade.slot = slot;
    }
    std::vector<Claimant> reversed(claimants.rbegin(), claimants.rend());
    constexpr int TIMES = 10;
    const auto claimTimes = [](Store& store, const std::vector<Claimant>& all) {
        for (int i = 0; i < TIMES; ++i) {
            store.claimAll(all);
        }
    };
    auto other = std::async(std::launch::async, [&] { claimTimes(*other_, reversed); });
    EXPECT_NO_THROW(claimTimes(*store_, claimants));
    EXPECT_NO_THROW(other.get());
    EXPECT_EQ(server().sql("SELECT min(epoch), max(epoch) FROM logs", "contract"), "20|20\n");
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
    PgStore impatient(place_, {std::chrono::milliseconds(500), std::chrono::milliseconds(50)}, "");
    server().sql("ALTER SYSTEM SET synchronous_standby_names = 'nobody'");
    server().sql("SELECT pg_reload_conf()");
    ASSERT_TRUE(support::waitUntil(
        [] { return server().sql("SHOW synchronous_standby_names") == "nobody\n"; }));
    EXPECT_EQ(impatient.claim(key_, 0).newest->number, generation);
    impatient.begin();
    add(impatient, generation, 1);
    EXPECT_THROW(impatient.commit(), PgError);
    impatient.rollback();
    // The server goes on with it. That keeps no log locked in somebody's hands, and who asks for
    // locked logs waits for no standby either.
    impatient.begin();
    add(impatient, generation, 1);
    EXPECT_THROW(impatient.commit(), PgError);
    impatient.rollback();
    const SeriesKey another{{"ENC-A", "BLADE-2", 1}, 1};
    store_->claim(another, 0);
    EXPECT_THAT(store_->lockedOf({key_, another}), ElementsAre(key_));
    EXPECT_EQ(server().sql("SELECT count(*) FROM pg_stat_activity WHERE wait_event = 'SyncRep'"),
              "1\n");
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
