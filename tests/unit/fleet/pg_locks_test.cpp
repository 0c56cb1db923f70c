/** Rows that another session of the server keeps locked, and what a conflict leaves known. */
#include "lane.h"
#include "pg_store_fixture.h"

using namespace evarchive;
using fleet::PgStoreTest;
using fleet::server;
using support::eventBody;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

class PgLocksTest : public PgStoreTest {
  protected:
    PgLocksTest() { holder_.reopen(); }

    static SeriesKey keyOf(U32_t blade) {
        return {{"ENC-A", "BLADE-" + std::to_string(blade), 1}, 1};
    }

    static constexpr PgPatience IMPATIENT{std::chrono::milliseconds(1500),
                                          std::chrono::milliseconds(50)};

    /** Logs of this store, with an event each. */
    static std::vector<GenerationKey> claimed(Store& store, U32_t logs) {
        std::vector<GenerationKey> generations;
        for (U32_t blade = 1; blade <= logs; ++blade) {
            generations.push_back({store.claim(keyOf(blade), 0).series, 1});
        }
        store.begin();
        for (const GenerationKey& generation : generations) {
            store.addGeneration(generation, fleet::NOW);
            add(store, generation, 0);
        }
        store.commit();
        return generations;
    }

    void lock(const GenerationKey& generation) {
        holder_.execute("BEGIN; SELECT 1 FROM logs WHERE log = " +
                        std::to_string(generation.series) + " FOR UPDATE");
    }
    void unlock() { holder_.execute("ROLLBACK"); }

    PgStore impatient_{place_, IMPATIENT, ""};
    PgConnection holder_{place_};
};

} // namespace

TEST_F(PgLocksTest, LockedLogIsNamedAndTheOthersAreFiledWithoutIt) {
    const auto logs = claimed(impatient_, 3);
    lock(logs[1]);
    impatient_.begin();
    for (const GenerationKey& log : logs) {
        add(impatient_, log, 1);
    }
    try {
        impatient_.commit();
        FAIL() << "the log is locked";
    } catch (const StoreLocked& locked) {
        EXPECT_THAT(locked.locked(), ElementsAre(keyOf(2)));
    }
    impatient_.rollback();
    const std::vector<SeriesKey> all = {keyOf(1), keyOf(2), keyOf(3), keyOf(4)};
    EXPECT_THAT(impatient_.lockedOf(all), ElementsAre(keyOf(2)));
    impatient_.begin();
    add(impatient_, logs[0], 1);
    add(impatient_, logs[2], 1);
    impatient_.commit();
    unlock();
    EXPECT_THAT(impatient_.lockedOf(all), IsEmpty());
    impatient_.begin();
    add(impatient_, logs[1], 1);
    impatient_.commit();
    EXPECT_EQ(count("events"), 6U);
}

TEST_F(PgLocksTest, HandshakeOfALockedLogNamesIt) {
    const auto logs = claimed(*store_, 2);
    lock(logs[0]);
    try {
        impatient_.claim(keyOf(1), 0);
        FAIL() << "the log is locked";
    } catch (const StoreLocked& locked) {
        EXPECT_THAT(locked.locked(), ElementsAre(keyOf(1)));
    }
    impatient_.rollback();
    EXPECT_EQ(impatient_.claim(keyOf(2), 0).newest->highest, 0U);
    unlock();
    EXPECT_EQ(impatient_.claim(keyOf(1), 0).newest->highest, 0U);
}

TEST_F(PgLocksTest, LockedLogsOfHandshakesThatGoTogetherAreNamedAndNothingIsClaimed) {
    const auto logs = claimed(*store_, 4);
    lock(logs[0]);
    holder_.execute("SELECT 1 FROM logs WHERE log = " + std::to_string(logs[2].series) +
                    " FOR UPDATE");
    try {
        impatient_.claimAll({{keyOf(1), 0}, {keyOf(2), 0}, {keyOf(3), 0}, {keyOf(4), 0}});
        FAIL() << "logs are locked";
    } catch (const StoreLocked& locked) {
        EXPECT_THAT(locked.locked(), UnorderedElementsAre(keyOf(1), keyOf(3)));
    }
    impatient_.rollback();
    unlock();
    EXPECT_EQ(server().sql("SELECT max(epoch) FROM logs", "contract"), "1\n");
    store_->begin();
    add(*store_, logs[1], 1);
    EXPECT_NO_THROW(store_->commit());
}

TEST_F(PgLocksTest, TableThatIsLockedNamesNoLog) {
    const auto logs = claimed(impatient_, 1);
    holder_.execute("BEGIN; LOCK TABLE events");
    impatient_.begin();
    add(impatient_, logs[0], 1);
    try {
        impatient_.commit();
        FAIL() << "the table is locked";
    } catch (const StoreLocked&) {
        FAIL() << "no log is";
    } catch (const StoreError& error) {
        EXPECT_TRUE(error.isPassing());
    }
    impatient_.rollback();
    unlock();
}

TEST_F(PgLocksTest, ConflictNamesOnlyTheLogsThatHaveChanged) {
    const auto logs = claimed(*store_, 4);
    other_->claim(keyOf(2), 0);
    const auto series = other_->findSeries(keyOf(3));
    ASSERT_TRUE(other_->newestGeneration(*series)); // a visitor
    other_->begin();
    add(*other_, logs[2], 1, 1000, true);
    other_->commit();
    store_->begin();
    for (const GenerationKey& log : logs) {
        add(*store_, log, 2);
    }
    try {
        store_->commit();
        FAIL() << "a claim was lost";
    } catch (const StoreConflict& conflict) {
        EXPECT_THAT(conflict.lost(), ElementsAre(logs[1].series));
        EXPECT_THAT(conflict.stale(), ElementsAre(logs[2].series));
    }
    store_->rollback();
}

TEST_F(PgLocksTest, LogsThatAConflictDoesNotNameAreNotLookedUpAgain) {
    const auto logs = claimed(*store_, 40);
    other_->claim(keyOf(7), 0);
    store_->begin();
    for (const GenerationKey& log : logs) {
        add(*store_, log, 1);
    }
    EXPECT_THAT(lostAt(*store_), ElementsAre(logs[6].series));
    const U64_t asked = callsOf("SELECT%FROM logs%");
    store_->begin();
    for (const GenerationKey& log : logs) {
        if (log != logs[6]) {
            add(*store_, log, 1);
        }
    }
    store_->commit();
    EXPECT_EQ(callsOf("SELECT%FROM logs%"), asked);
    EXPECT_EQ(count("events"), 79U);
    EXPECT_EQ(
        server().sql("SELECT count(*) FROM logs WHERE highest = 1 AND run_last = 1", "contract"),
        "39\n");
}

// What a transaction that was undone had made of a log's row is not what the next one writes.
TEST_F(PgLocksTest, ChangeThatAVisitorMadeBetweenTwoTriesIsSeen) {
    const auto logs = claimed(*store_, 2);
    other_->claim(keyOf(2), 0);
    store_->begin();
    add(*store_, logs[0], 1);
    add(*store_, logs[1], 1);
    EXPECT_THAT(lostAt(*store_), ElementsAre(logs[1].series));
    const auto series = other_->findSeries(keyOf(1));
    ASSERT_TRUE(other_->newestGeneration(*series));
    other_->begin();
    add(*other_, logs[0], 1, 2000, true); // the same id at another time, so another row
    other_->commit();
    store_->begin();
    add(*store_, logs[0], 1);
    try {
        store_->commit();
        FAIL() << "the id is taken";
    } catch (const StoreConflict& conflict) {
        EXPECT_THAT(conflict.stale(), ElementsAre(logs[0].series));
    }
    store_->rollback();
    EXPECT_EQ(store_->heldEvent(logs[0], 1)->image, eventBody({.id = 1, .time = 2000}));
}

TEST_F(PgLocksTest, LooksAtSomeLogsLeaveTheFenceOfOthersToOneStatement) {
    const auto logs = claimed(*store_, 10);
    const U64_t fences = callsOf("UPDATE logs l SET seen%");
    store_->begin();
    for (std::size_t i = 0; i < 9; ++i) {
        add(*store_, logs[i], 1);
        EXPECT_TRUE(store_->heldEvent(logs[i + 1], 0));
        EXPECT_TRUE(store_->newestGeneration(logs[i + 1].series));
    }
    EXPECT_EQ(store_->heldEvent(logs[0], 1)->sequenceId, 1U); // its own is seen
    store_->commit();
    EXPECT_EQ(callsOf("UPDATE logs l SET seen%") - fences, 1U);
}

TEST_F(PgLocksTest, ManyNewLogsAreLookedAtByOneStatement) {
    store_->begin();
    for (U32_t blade = 1; blade <= 20; ++blade) {
        store_->addSeries(keyOf(blade));
    }
    const U64_t looks = callsOf("SELECT log, epoch%");
    for (U32_t blade = 1; blade <= 20; ++blade) {
        store_->setAside(keyOf(blade), Aside::SUPERSEDED, {0, bodyOf(0), true, true, fleet::NOW});
        add(*store_, {store_->addSeries(keyOf(blade)), 1}, 0, 1000, true);
    }
    store_->commit();
    EXPECT_EQ(callsOf("SELECT log, epoch%") - looks, 1U);
}

TEST_F(PgLocksTest, LogsOfWhatIsDoneAgainAreLookedAtTogether) {
    constexpr U32_t LOGS = 40;
    std::atomic<U64_t> answered = 0;
    Lane lane(openPgArchive(place_), {},
              {[&](const std::vector<Reply>& more) { answered += more.size(); },
               [](Level, const std::string&) {}, [](const std::string&) {}});
    const auto addEvents = [](Batch& batch, U32_t id) {
        for (U32_t blade = 1; blade <= LOGS; ++blade) {
            const support::LogName log{.blade = "BLADE-" + std::to_string(blade)};
            batch.add(blade, Batch::Kind::EVENT, eventBody({.log = log, .id = id}));
        }
    };
    Batch batch;
    for (U32_t blade = 1; blade <= LOGS; ++blade) {
        const support::LogName log{.blade = "BLADE-" + std::to_string(blade)};
        batch.add(blade, Batch::Kind::STATUS, support::statusBody(log, 0, {1, 2, 3}));
    }
    addEvents(batch, 0);
    lane.submit(batch);
    ASSERT_TRUE(support::waitUntil([&] { return answered == LOGS && lane.spooled() == 0; }));
    const auto looks = [] {
        return callsOf("SELECT%FROM logs%") + callsOf("SELECT%FROM generations%");
    };
    const U64_t before = looks();
    server().sql("SELECT pg_terminate_backend(pid) FROM pg_stat_activity "
                 "WHERE application_name = 'evarchiver'",
                 "contract");
    addEvents(batch, 1);
    lane.submit(batch);
    ASSERT_TRUE(support::waitUntil([&] { return lane.spooled() == 0; }));
    EXPECT_TRUE(lane.stop(std::chrono::seconds(30)));
    EXPECT_EQ(looks() - before, 1U);
    EXPECT_EQ(count("events"), 2 * LOGS);
    EXPECT_EQ(lane.state().counts.setAside, 0U);
}

// An administrator has taken a blade out.
TEST_F(PgLocksTest, LogWhoseRowIsGoneIsAddedAnew) {
    Archive archive(*store_, {}, [](Level, const std::string&) {});
    const support::LogName name{.blade = "BLADE-1"};
    const auto status = support::statusBody(name, 0, {1, 2, 3});
    archive.answerStatus(1, imageOf<EmpGetEvArchiverStatusMsg_t>(status));
    archive.commit();
    archive.fileEvent(1, eventBody({.log = name, .id = 0}));
    archive.commit();
    const auto removeRows = [] {
        server().sql("DELETE FROM events; DELETE FROM generations; DELETE FROM logs", "contract");
    };
    removeRows();
    archive.fileEvent(1, eventBody({.log = name, .id = 1}));
    try {
        archive.commit();
        FAIL() << "the log is gone";
    } catch (const StoreConflict& conflict) {
        EXPECT_THAT(conflict.lost(), testing::SizeIs(1));
        archive.abandon(conflict);
        EXPECT_THAT(archive.loseClaims(conflict.lost()), ElementsAre(1U));
    }
    EXPECT_EQ(archive.fileEvent(1, eventBody({.log = name, .id = 1})), Filed::SET_ASIDE);
    EXPECT_EQ(archive.fileEvent(2, eventBody({.log = name, .id = 0})), Filed::STORED);
    archive.commit();
    removeRows();
    archive.fileEvent(2, eventBody({.log = name, .id = 1}));
    try {
        archive.commit();
        FAIL() << "the log is gone";
    } catch (const StoreConflict& conflict) {
        EXPECT_THAT(conflict.lost(), IsEmpty());
        archive.abandon(conflict);
    }
    EXPECT_EQ(archive.fileEvent(2, eventBody({.log = name, .id = 1})), Filed::STORED);
    archive.commit();
    EXPECT_EQ(count("events"), 1U);
    EXPECT_EQ(count("logs"), 1U);
}

TEST_F(PgLocksTest, LogsWhoseLinksHaveEndedAreNotLookedAtAfterAReconnection) {
    Archive archive(*store_, {}, [](Level, const std::string&) {});
    for (U32_t blade = 1; blade <= 3; ++blade) {
        const support::LogName name{.blade = "BLADE-" + std::to_string(blade)};
        const auto status = support::statusBody(name, 0, {1, 2, 3});
        archive.answerStatus(blade, imageOf<EmpGetEvArchiverStatusMsg_t>(status));
        archive.commit();
        archive.fileEvent(blade, eventBody({.log = name, .id = 0}));
        archive.commit();
    }
    archive.endLink(1);
    archive.endLink(3);
    archive.commit();
    server().sql("DELETE FROM events; SELECT pg_terminate_backend(pid) FROM "
                 "pg_stat_activity WHERE application_name = 'evarchiver'",
                 "contract");
    EXPECT_THROW(store_->bytesUsed(), StoreError);
    try {
        store_->begin();
        FAIL() << "an event is gone";
    } catch (const StoreConflict& conflict) {
        EXPECT_THAT(conflict.lost(), ElementsAre(*store_->findSeries(keyOf(2))));
    }
}

// A person's open transaction in psql.
TEST_F(PgLocksTest, LaneFilesTheEventsOfOtherLogsWhileOneIsLocked) {
    auto store = std::make_unique<PgStore>(place_, IMPATIENT, "");
    const auto logs = claimed(*store, 2);
    std::mutex mutex;
    std::string failed;
    std::vector<Reply> replies;
    Lane lane(std::move(store), {},
              {[&](const std::vector<Reply>& more) {
                   const std::lock_guard guard(mutex);
                   replies.insert(replies.end(), more.begin(), more.end());
               },
               [](Level, const std::string&) {},
               [&](const std::string& why) {
                   const std::lock_guard guard(mutex);
                   failed = why;
               }});
    const auto stored = [&](std::size_t log) {
        return server().sql(
            "SELECT string_agg(id::text, ' ' ORDER BY id) FROM events WHERE log = " +
                std::to_string(logs[log].series),
            "contract");
    };
    lock(logs[0]);
    Batch batch;
    for (U32_t id = 1; id < 4; ++id) {
        for (U32_t blade = 1; blade < 3; ++blade) {
            const support::LogName log{.blade = "BLADE-" + std::to_string(blade)};
            batch.add(blade, Batch::Kind::EVENT, eventBody({.log = log, .id = id}));
        }
    }
    for (U32_t blade = 1; blade < 4; ++blade) {
        const support::LogName log{.blade = "BLADE-" + std::to_string(blade)};
        batch.add(blade, Batch::Kind::STATUS, support::statusBody(log, 0, {1, 2, 3}));
    }
    lane.submit(batch);
    const auto hasReplies = [&](std::size_t count) {
        const std::lock_guard guard(mutex);
        return replies.size() >= count;
    };
    ASSERT_TRUE(support::waitUntil([&] { return hasReplies(2); }));
    EXPECT_EQ(replies[0].link, 2U);
    EXPECT_EQ(replies[1].link, 3U);
    EXPECT_EQ(stored(1), "0 1 2 3\n");
    EXPECT_EQ(stored(0), "0\n");
    unlock();
    ASSERT_TRUE(support::waitUntil([&] { return hasReplies(3); }));
    EXPECT_EQ(replies[2].link, 1U);
    EXPECT_TRUE(lane.stop(std::chrono::seconds(30)));
    EXPECT_EQ(stored(0), "0 1 2 3\n");
    EXPECT_EQ(count("events"), 8U);
    EXPECT_EQ(failed, "");
}
