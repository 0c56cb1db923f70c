/** An archive that several processes file into: claims, conflicts, and who gives way. */
#include "archive_fixture.h"
#include "memory_store.h"

using namespace evarchive;
using namespace support;

namespace {

/** One of the processes. */
struct Process {
    explicit Process(MemoryDatabase& database, bool isShared = true,
                     const ArchiveSettings& settings = {})
        : store(database, isShared), archive(store, settings, [](Level, const std::string&) {}) {}

    StatusVerdict connect(LinkNumber link, const EventFields& oldest) {
        archive.commit();
        return archive.answerStatus(link, imageOf<EmpGetEvArchiverStatusMsg_t>(
                                              statusBody(oldest.log, oldest.id, oldest.data)));
    }

    /** Commits what file() files, again after each conflict, as a lane does. */
    Filed fileSafely(LinkNumber link, const std::vector<EventFields>& events) {
        for (closed.clear(); conflicts < 10;) {
            Filed last{};
            try {
                for (const EventFields& event : events) {
                    last = archive.fileEvent(link, eventBody(event));
                }
                archive.commit();
                return last;
            } catch (const StoreConflict& conflict) {
                ++conflicts;
                archive.abandon(conflict);
                for (const LinkNumber loser : archive.loseClaims(conflict.lost())) {
                    closed.push_back(loser);
                }
            }
        }
        throw std::runtime_error("conflicts without end");
    }

    MemoryStore store;
    Archive archive;
    std::vector<LinkNumber> closed;
    int conflicts = 0;
};

class SharedTest : public testing::Test {
  protected:
    static EventFields event(U32_t id, U32_t time = 1000) {
        return {.id = id, .data = {1, 2, 3}, .time = time};
    }

    std::size_t generations() { return database_.generations.size(); }
    std::size_t heldIn(U32_t generation) {
        return database_.generations.at({1, generation}).events.size();
    }

    MemoryDatabase database_;
    Process first_{database_};
    Process second_{database_};
};

} // namespace

TEST_F(SharedTest, HandshakeSeesWhatAnotherProcessHasCommitted) {
    first_.connect(1, event(0));
    first_.fileSafely(1, {event(0), event(1), event(2), event(3)});
    EXPECT_EQ(second_.connect(1, event(0)), heldTo(3));
    second_.fileSafely(1, {event(3), event(4)});
    EXPECT_EQ(first_.connect(2, event(0)), heldTo(4));
    EXPECT_EQ(generations(), 1U);
}

TEST_F(SharedTest, LateEventsOfAnEarlierClaimOpenNoGeneration) {
    first_.connect(1, event(0));
    first_.fileSafely(1, {event(0), event(1)});
    // The log was rebuilt, and its blade is on the second by now.
    second_.connect(1, event(0, 2000));
    second_.fileSafely(1, {event(0, 2000), event(1, 2000), event(2, 2000)});
    ASSERT_EQ(generations(), 2U);
    EXPECT_EQ(first_.fileSafely(1, {event(2), event(3)}), Filed::SET_ASIDE);
    EXPECT_EQ(first_.closed, std::vector<LinkNumber>{1});
    EXPECT_EQ(generations(), 2U);
    EXPECT_EQ(heldIn(2), 3U);
    EXPECT_EQ(database_.aside.size(), 2U);
    EXPECT_EQ(database_.aside.front().reason, Aside::SUPERSEDED);
}

TEST_F(SharedTest, LateEventThatAnyGenerationHoldsIsNotSetAside) {
    first_.connect(1, event(0));
    first_.fileSafely(1, {event(0), event(1), event(2)});
    second_.connect(1, event(0, 2000));
    second_.fileSafely(1, {event(0, 2000)});
    EXPECT_EQ(first_.fileSafely(1, {event(1), event(2)}), Filed::DUPLICATE);
    EXPECT_TRUE(database_.aside.empty());
}

// One blade of many has changed its archiver: the others' logs are not looked up again.
TEST_F(SharedTest, ConflictLeavesWhatIsKnownOfOtherLogs) {
    const LogName moved{.blade = "BLADE-2"};
    const LogName other{.blade = "BLADE-3"};
    first_.connect(1, event(0));
    first_.connect(2, {.log = moved});
    first_.connect(3, {.log = other});
    first_.fileSafely(1, {event(0), event(1)});
    first_.fileSafely(2, {{.log = moved, .id = 0}, {.log = moved, .id = 1}});
    first_.fileSafely(3, {{.log = other, .id = 0}, {.log = other, .id = 1}});
    second_.connect(1, {.log = moved});
    const U64_t looks = first_.store.generationLooks();
    for (U32_t id = 2; id < 5; ++id) {
        first_.archive.fileEvent(1, eventBody(event(id)));
        first_.archive.fileEvent(3, eventBody({.log = other, .id = id}));
    }
    EXPECT_EQ(first_.fileSafely(2, {{.log = moved, .id = 2}}), Filed::SET_ASIDE);
    EXPECT_EQ(first_.conflicts, 1);
    EXPECT_EQ(first_.store.generationLooks() - looks, 1U);
    // What was filed before the conflict in the same transaction is to be done again.
    EXPECT_EQ(first_.fileSafely(1, {event(2), event(3)}), Filed::STORED);
    EXPECT_EQ(first_.fileSafely(3, {{.log = other, .id = 2}}), Filed::STORED);
    EXPECT_EQ(first_.archive.counts().gaps, 0U);
    EXPECT_EQ(first_.archive.counts().duplicates, 0U);
    EXPECT_EQ(first_.store.generationLooks() - looks, 1U);
    EXPECT_EQ(first_.connect(1, event(0)), heldTo(3));
}

// A log that the conflict undid is not taken for one that is there.
TEST_F(SharedTest, NewLogOfATransactionThatMetAConflictIsAddedAgain) {
    const LogName fresh{.blade = "BLADE-2"};
    first_.connect(1, event(0));
    first_.fileSafely(1, {event(0)});
    second_.connect(1, event(0));
    first_.archive.fileEvent(2, eventBody({.log = fresh}));
    first_.archive.fileEvent(1, eventBody(event(1)));
    try {
        first_.archive.commit();
        FAIL() << "the claim was lost";
    } catch (const StoreConflict& conflict) {
        first_.archive.abandon(conflict);
    }
    EXPECT_EQ(first_.fileSafely(2, {{.log = fresh}}), Filed::STORED);
    EXPECT_EQ(generations(), 2U);
}

// A generation that a transaction opened is not known by heart when it was undone.
TEST_F(SharedTest, GenerationThatWasUndoneIsOpenedAgain) {
    const LogName other{.blade = "BLADE-2"};
    first_.connect(1, event(0));
    first_.connect(2, {.log = other});
    first_.fileSafely(1, {event(0), event(1)});
    first_.fileSafely(2, {{.log = other}});
    second_.connect(1, {.log = other});
    first_.archive.fileEvent(1, eventBody(event(1, 2000)));
    first_.fileSafely(2, {{.log = other, .id = 1}});
    EXPECT_EQ(generations(), 2U);
    EXPECT_EQ(first_.fileSafely(1, {event(1, 2000)}), Filed::NEW_GENERATION);
    EXPECT_EQ(heldIn(2), 1U);
}

TEST_F(SharedTest, LinkThatNeverShookHandsBeginsOnlyTheFirstGeneration) {
    EXPECT_EQ(first_.fileSafely(1, {event(0), event(1)}), Filed::STORED);
    EXPECT_EQ(first_.fileSafely(1, {event(1, 2000)}), Filed::STORED); // instead of the other
    EXPECT_EQ(generations(), 1U);
    EXPECT_EQ(database_.aside.front().reason, Aside::REPLACED);
}

TEST_F(SharedTest, EventsOfALinkThatNeverShookHandsAreNotClaimed) {
    first_.connect(1, event(0));
    first_.fileSafely(1, {event(0), event(1)});
    // The log was rebuilt: 2 comes behind another 1.
    EXPECT_EQ(second_.fileSafely(1, {event(0), event(1, 2000), event(2, 2000)}), Filed::STORED);
    EXPECT_EQ(first_.connect(2, event(0)), heldTo(1));
    EXPECT_EQ(first_.fileSafely(2, {event(1, 2000)}), Filed::NEW_GENERATION);
}

TEST_F(SharedTest, DoubtfulEventIsConfirmedByTheBladesOwnLink) {
    second_.fileSafely(1, {event(0), event(1), event(2)});
    EXPECT_EQ(first_.connect(1, event(0)), NO_DATA);
    EXPECT_EQ(first_.fileSafely(1, {event(0), event(1), event(2)}), Filed::STORED);
    EXPECT_EQ(first_.connect(2, event(0)), heldTo(2));
    EXPECT_EQ(heldIn(1), 3U);
}

// A blade that logs slowly: nothing is seen behind an event until the next one comes.
TEST_F(SharedTest, EventThatALinkFiledItselfIsConfirmedWithoutALook) {
    first_.connect(1, event(0));
    first_.archive.fileEvent(1, eventBody(event(0)), Certainty::SILENT);
    first_.archive.commit();
    const U64_t looks = first_.store.looks();
    first_.fileSafely(1, {event(0)});
    EXPECT_EQ(first_.store.looks(), looks);
    EXPECT_FALSE(database_.generations.at({1, 1}).events.at(0).doubtful);
}

TEST_F(SharedTest, AnotherEventConfirmsOnlyItself) {
    first_.connect(1, event(0));
    first_.archive.fileEvent(1, eventBody(event(0)), Certainty::SILENT);
    first_.archive.commit();
    EXPECT_EQ(first_.fileSafely(1, {event(1)}), Filed::STORED);
    EXPECT_EQ(first_.conflicts, 0);
    const auto& events = database_.generations.at({1, 1}).events;
    ASSERT_EQ(events.size(), 2U);
    EXPECT_TRUE(events.at(0).doubtful);
    EXPECT_EQ(events.at(1).image, eventBody(event(1)));
    EXPECT_FALSE(events.at(1).doubtful);
}

TEST_F(SharedTest, EventThatWasReplacedMeanwhileIsNotConfirmed) {
    first_.connect(1, event(0));
    first_.archive.fileEvent(1, eventBody(event(0)), Certainty::SILENT);
    first_.archive.commit();
    second_.fileSafely(2, {event(0, 2000)}); // on a link that never shook hands
    first_.fileSafely(1, {event(0)});
    EXPECT_EQ(first_.conflicts, 1);
    const StoredEvent& held = database_.generations.at({1, 1}).events.at(0);
    EXPECT_EQ(held.image, eventBody(event(0)));
    EXPECT_FALSE(held.doubtful);
}

TEST_F(SharedTest, EventOfAnEarlierClaimIsNotConfirmed) {
    first_.connect(1, event(0));
    first_.archive.fileEvent(1, eventBody(event(0)), Certainty::SILENT);
    first_.archive.commit();
    second_.connect(2, event(0));
    second_.fileSafely(2, {event(0, 2000)}); // another log
    EXPECT_EQ(first_.fileSafely(1, {event(0)}), Filed::SET_ASIDE);
    EXPECT_EQ(first_.conflicts, 1);
    EXPECT_EQ(database_.generations.at({1, 1}).events.at(0).image, eventBody(event(0, 2000)));
}

TEST_F(SharedTest, RunsOfManyLogsAreNotWrittenOneByOneToMakeRoom) {
    for (const bool isShared : {true, false}) {
        MemoryDatabase database;
        Process process(database, isShared, {.knownSeries = 2});
        for (LinkNumber link = 1; link <= 3; ++link) {
            EventFields fields = event(0);
            fields.log.slot = static_cast<U32_t>(link);
            process.connect(link, fields);
            EventFields next = fields;
            next.id = 1;
            process.fileSafely(link, {fields, next});
        }
        EXPECT_EQ(database.runsNoted, isShared ? 0U : 3U);
    }
}

TEST_F(SharedTest, SameEventsOverTwoProcessesAreStoredOnce) {
    first_.fileSafely(1, {event(0)}); // knows the log now
    second_.fileSafely(1, {event(0), event(1), event(2)});
    EXPECT_EQ(first_.fileSafely(1, {event(1), event(2), event(3)}), Filed::STORED);
    EXPECT_EQ(first_.conflicts, 1);
    EXPECT_EQ(heldIn(1), 4U);
}

TEST_F(SharedTest, TwoProcessesThatBeginALogBeginOneGeneration) {
    first_.archive.fileEvent(1, eventBody(event(0)));
    second_.fileSafely(1, {event(0)});
    EXPECT_THROW(first_.archive.commit(), StoreConflict);
    first_.archive.abandon();
    EXPECT_EQ(first_.fileSafely(1, {event(0), event(1)}), Filed::STORED);
    EXPECT_EQ(generations(), 1U);
    EXPECT_EQ(heldIn(1), 2U);
}

TEST_F(SharedTest, InquirySeesTheGenerationOfNow) {
    first_.connect(1, event(0));
    first_.fileSafely(1, {event(0), event(1)});
    const auto inquiry = imageOf<EmpEvInquiryMsg_t>(inquiryBody(LAST, {}, 0));
    EXPECT_EQ(first_.archive.answerInquiry(inquiry)->sequenceId, 1U);
    second_.connect(1, event(0, 2000));
    second_.fileSafely(1, {event(0, 2000)});
    EXPECT_EQ(first_.archive.answerInquiry(inquiry)->sequenceId, 0U);
}

TEST_F(SharedTest, BladeThatComesBackIsAnOrdinaryOne) {
    first_.connect(1, event(0));
    first_.fileSafely(1, {event(0)});
    second_.connect(1, event(0));
    second_.fileSafely(1, {event(0), event(1)});
    first_.fileSafely(1, {event(1)});
    EXPECT_EQ(first_.closed, std::vector<LinkNumber>{1});
    EXPECT_EQ(first_.connect(2, event(0)), heldTo(1));
    EXPECT_EQ(first_.fileSafely(2, {event(1), event(2)}), Filed::STORED);
    EXPECT_EQ(heldIn(1), 3U);
}
