/** Several archivers on one PostgreSQL server: claims, fences, locks, unknown outcomes, refusals.
 */
#include "cutting_proxy.h"
#include "pg_store_fixture.h"
#include "postgres/log_number.h"

using namespace evarchive;
using fleet::PgStoreTest;
using fleet::server;
using support::eventBody;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::ThrowsMessage;

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

// The number of a session whose commit was not heard of is that of another one by now, which has
// nothing to do with the lock that is met.
TEST_F(PgStoreTest, EarlierSessionIsToldFromALaterOneOfTheSameNumber) {
    server().sql("DROP SCHEMA IF EXISTS shown CASCADE; CREATE SCHEMA shown; "
                 "CREATE TABLE shown.more (pid int, backend_start timestamptz); "
                 "CREATE VIEW shown.pg_stat_activity AS SELECT pid, backend_start "
                 "FROM pg_catalog.pg_stat_activity UNION SELECT pid, backend_start FROM shown.more",
                 "contract");
    fleet::CuttingProxy proxy(server().socketDirectory());
    PgStore store(proxy.through(place_) + "?options=-csearch_path%3Dshown,pg_catalog,public",
                  {std::chrono::milliseconds(1500), std::chrono::milliseconds(50)}, "");
    const GenerationKey generation = fill(store, {0});
    proxy.cutAtCommit();
    const std::string mine = "FROM pg_catalog.pg_stat_activity WHERE application_name = "
                             "'evarchiver' ORDER BY backend_start DESC LIMIT 1";
    server().sql("INSERT INTO shown.more SELECT pid, backend_start " + mine, "contract");
    store.begin();
    add(store, generation, 1);
    EXPECT_THROW(store.commit(), StoreError);
    store.rollback();
    ASSERT_TRUE(proxy.hasCut());
    PgConnection holder(place_);
    holder.execute("BEGIN; SELECT 1 FROM logs FOR UPDATE");
    const auto meet = [&] {
        store.begin();
        add(store, generation, 2);
        try {
            store.commit();
        } catch (const StoreLocked& locked) {
            store.rollback();
            return std::string("locked");
        } catch (const StoreError& error) {
            store.rollback();
            return std::string(error.what());
        }
        return std::string("committed");
    };
    EXPECT_THAT(meet(), HasSubstr("an earlier commit of this archiver still waits"));
    server().sql("UPDATE shown.more SET backend_start = backend_start + interval '1 microsecond'",
                 "contract");
    EXPECT_EQ(meet(), "locked");
    holder.execute("ROLLBACK");
    EXPECT_EQ(meet(), "committed");
    server().sql("DROP SCHEMA shown CASCADE", "contract");
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

TEST_F(PgStoreTest, LogsWithTheSameNumberAreToldApartWhenManyAreLookedFor) {
    const SeriesKey third{{"ENC-A", "BLADE-3", 1}, 1};
    server().sql("INSERT INTO logs (log, identity, enclosure, blade, slot, instance, generation, "
                 "highest) VALUES (" +
                     std::to_string(logNumber(identityOf(key_))) + ", 'x', 'E', 'B', 1, 1, 1, 77)",
                 "contract");
    EXPECT_EQ(other_->findAll({key_}).front(), std::nullopt);
    const GenerationKey generation = fill(*store_, {0, 1});
    const S64_t usual = store_->claim(third, 0).series;
    const auto found = other_->findAll({third, key_, {{"ENC-A", "NOBODY", 1}, 1}});
    ASSERT_EQ(found.size(), 3U);
    EXPECT_EQ(found[0]->series, usual);
    ASSERT_TRUE(found[1] && found[1]->newest);
    EXPECT_EQ(found[1]->series, logNumber(identityOf(key_), 1));
    EXPECT_EQ(found[1]->newest->number, generation);
    EXPECT_EQ(found[1]->newest->highest, 1U);
    EXPECT_EQ(found[2], std::nullopt);
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
