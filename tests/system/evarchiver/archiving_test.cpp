#include "blade_link.h"

#include <gmock/gmock.h>

#include <csignal>
#include <thread>

using namespace support;
using testing::HasSubstr;

constexpr Claim NO_DATA{0, 1};

// The archiver has all up to this id, and asks for that one again.
constexpr Claim heldTo(U32_t id) {
    return {id - 1, 0};
}

class ArchivingTest : public ArchiverProcessTest {};

TEST_F(ArchivingTest, HandshakeOfAnUnknownBladeIsAnsweredWithNoData) {
    start();
    BladeLink link(port_);
    const Bytes request = statusOf(event(3), 1000);
    ASSERT_EQ(request.size(), 196U);
    const Bytes answer = link.ask(request);
    Bytes expected = {0, 1, 0, 176, 0, 6, 0, 2, 0, 0, 0, 1, 0, 0, 3, 0xE8};
    expected.insert(expected.end(), request.begin() + 16, request.begin() + 16 + 168);
    put32(expected, 0);
    put32(expected, 1);
    EXPECT_EQ(answer, expected);
    EXPECT_EQ(stop(), exitedWith(0));
}

TEST_F(ArchivingTest, EventsAreClaimedAndAnswered) {
    start();
    BladeLink link(port_);
    EXPECT_EQ(claim(link, event(10)), NO_DATA);
    link.send(events(10, 400));
    EXPECT_EQ(claim(link, event(10)), heldTo(400));
    const auto found = [&link](U32_t type, U32_t id) {
        const Bytes answer = link.ask(inquiryMessage(type, {}, id, 7));
        EXPECT_EQ(get32(answer, 8), 1U);
        EXPECT_EQ(get32(answer, 12), 7U);
        return Bytes(answer.begin() + 16, answer.end());
    };
    EXPECT_EQ(found(FIRST, 0), eventBody(event(10)));
    EXPECT_EQ(found(NEXT, 10), eventBody(event(11)));
    EXPECT_EQ(found(EXACT, 299), eventBody(event(299)));
    EXPECT_EQ(found(PREVIOUS, 300), eventBody(event(299)));
    // No event manager survives an answer to this one about itself, and none asks: another link.
    BladeLink other(port_);
    const Bytes last = other.ask(inquiryMessage(LAST, {}, 0, 7));
    EXPECT_EQ(Bytes(last.begin() + 16, last.end()), eventBody(event(400)));
    EXPECT_EQ(get32(link.ask(inquiryMessage(LAST, {}, 0, 8)), 8), 3U);
    EXPECT_EQ(stop(), exitedWith(0));
}

TEST_F(ArchivingTest, WhatIsNotHeldIsAnsweredWithTheIdentityAndTheId) {
    start();
    BladeLink link(port_);
    link.send(events(0, 5));
    const LogName other{"ENC-A", "BLADE-1", 1, 2}; // the next instance
    for (const U32_t type : {FIRST, NEXT, EXACT, PREVIOUS, LAST}) {
        Bytes expected = {0, 1, 0, 152, 0, 1, 0, 2, 0, 0, 0, 2, 0, 0, 0, 9};
        putLog(expected, other);
        put32(expected, 3);
        expected.resize(168);
        EXPECT_EQ(link.ask(inquiryMessage(type, other, 3, 9)), expected) << type;
    }
}

TEST_F(ArchivingTest, InquiryBehindAStatusRequestLeavesEachItsAnswer) {
    start();
    BladeLink link(port_);
    link.send(events(0, 9));
    ASSERT_EQ(claim(link, event(0)), heldTo(9));
    Bytes both = statusOf(event(0), 71);
    const Bytes inquiry = inquiryMessage(EXACT, {}, 4, 72);
    both.insert(both.end(), inquiry.begin(), inquiry.end());
    link.send(both);
    std::map<U32_t, Bytes> answers;
    for (int count = 0; count < 2; ++count) {
        const Bytes answer = link.receive();
        answers[get32(answer, 12)] = answer;
    }
    EXPECT_EQ(claimOf(answers[71]), heldTo(9));
    EXPECT_EQ(Bytes(answers[72].begin() + 16, answers[72].end()), eventBody(event(4)));
}

TEST_F(ArchivingTest, SeveralLanesServeAFleet) {
    start({"--lanes", "3"});
    for (U32_t blade = 0; blade < 12; ++blade) {
        const LogName log{"ENC-A", "BLADE-" + std::to_string(blade), 1, 1};
        const LogName stranger{"ENC-B", "BLADE-" + std::to_string(blade), 1, 1};
        BladeLink link(port_);
        ASSERT_EQ(claim(link, event(0, log)), NO_DATA);
        link.send(events(0, 9, log));
        link.send(events(10, 10, stranger)); // replayed, it keeps its identity
        link.send(events(11, 20, log));
        EXPECT_EQ(claim(link, event(0, log)), heldTo(20)) << blade;
        const Bytes answer = link.ask(inquiryMessage(EXACT, stranger, 10, 7));
        EXPECT_EQ(Bytes(answer.begin() + 16, answer.end()), eventBody(event(10, stranger)));
    }
    EXPECT_EQ(stop(), exitedWith(0));
    EXPECT_THAT(archiver_->output(), HasSubstr("264 events stored"));
}

TEST_F(ArchivingTest, OneBladeAsksAboutAnother) {
    start();
    const LogName other{"ENC-A", "BLADE-2", 2, 1};
    BladeLink first(port_);
    BladeLink second(port_);
    claim(first, event(0));
    claim(second, event(0, other));
    second.send(events(0, 50, other));
    ASSERT_EQ(claim(second, event(0, other)), heldTo(50));
    const Bytes answer = first.ask(inquiryMessage(LAST, other, 0, 3));
    EXPECT_EQ(Bytes(answer.begin() + 16, answer.end()), eventBody(event(50, other)));
    EXPECT_EQ(claim(first, event(0)), NO_DATA);
}

TEST_F(ArchivingTest, LargestEventTravelsWhole) {
    start();
    BladeLink link(port_);
    const EventFields largest = {.id = 0, .data = Bytes(3848, 0xD7)};
    link.send(eventMessage(largest));
    const Bytes answer = link.ask(inquiryMessage(EXACT, {}, 0, 1));
    EXPECT_EQ(answer.size(), 4016U);
    EXPECT_EQ(Bytes(answer.begin() + 16, answer.end()), eventBody(largest));
}

TEST_F(ArchivingTest, LoneEventIsKeptWithoutAnythingBehindIt) {
    start();
    BladeLink link(port_);
    link.send(eventMessage(event(0)));
    BladeLink other(port_);
    const auto isHeld = [&] { return get32(other.ask(inquiryMessage(EXACT, {}, 0, 1)), 8) == 1; };
    EXPECT_TRUE(waitUntil(isHeld));
}

TEST_F(ArchivingTest, AnswersThatNobodyReadsYetWaitAndComeWholeAndInOrder) {
    start();
    BladeLink link(port_);
    link.send(eventMessage({.id = 0, .data = Bytes(3848, 0xD7)}));
    for (U32_t handle = 0; handle < 60; ++handle) {
        link.send(inquiryMessage(LAST, {}, 0, handle));
    }
    for (U32_t handle = 0; handle < 60; ++handle) {
        const Bytes answer = link.receivePatiently();
        ASSERT_EQ(get32(answer, 12), handle);
        ASSERT_EQ(answer.size(), 4016U);
    }
    EXPECT_EQ(claim(link, {.id = 0, .data = Bytes(3848, 0xD7)}), NO_DATA); // once more
}

TEST_F(ArchivingTest, BladeThatNeverReadsItsAnswersIsDisconnected) {
    start({"--unsent-limit", "8192"});
    BladeLink link(port_);
    link.send(eventMessage({.id = 0, .data = Bytes(3848, 0xD7)}));
    const auto askOn = [&] {
        while (true) {
            link.send(inquiryMessage(LAST, {}, 0, 1));
        }
    };
    EXPECT_THROW(askOn(), std::runtime_error);
    EXPECT_THAT(archiver_->waitForOutput("does not read its answers"), HasSubstr("closed"));
}

TEST_F(ArchivingTest, UnreadAnswersAreBoundForAllBladesTogether) {
    start({"--unsent-limit", "30000"});
    std::vector<std::unique_ptr<BladeLink>> links;
    for (U32_t slot = 0; slot < 4; ++slot) {
        links.push_back(std::make_unique<BladeLink>(port_, 0, "127.0.0.1", 4096));
    }
    links[0]->ask(eventMessage({.id = 0, .data = Bytes(300, 0xD7)}) +
                  inquiryMessage(LAST, {}, 0, 1));
    // 20 KB for each of them, of which a window takes a few: no one of them is too much.
    const auto askOn = [](BladeLink& link) {
        for (U32_t handle = 0; handle < 43; ++handle) {
            link.send(inquiryMessage(LAST, {}, 0, handle));
        }
    };
    for (const auto& link : links) {
        try {
            askOn(*link);
        } catch (const std::runtime_error&) { // the archiver was quicker, and has closed this one
        }
    }
    EXPECT_THAT(archiver_->waitForOutput("does not read its answers"), HasSubstr("closed"));
}

TEST_F(ArchivingTest, RestartKeepsEverything) {
    start();
    {
        BladeLink link(port_);
        link.send(events(0, 250));
        ASSERT_EQ(claim(link, event(0)), heldTo(250));
    }
    EXPECT_EQ(stop(), exitedWith(0));
    start();
    BladeLink link(port_);
    EXPECT_EQ(claim(link, event(0)), heldTo(250));
    const Bytes answer = link.ask(inquiryMessage(EXACT, {}, 123, 1));
    EXPECT_EQ(Bytes(answer.begin() + 16, answer.end()), eventBody(event(123)));
    EXPECT_EQ(stop(), exitedWith(0));
}

TEST_F(ArchivingTest, EventAtHandIsKeptWhenTheArchiverIsStopped) {
    start();
    BladeLink link(port_);
    link.ask(events(0, 0) + inquiryMessage(FIRST, {}, 0, 1) + events(1, 1) +
             inquiryMessage(FIRST, {}, 0, 2));
    EXPECT_EQ(stop(), exitedWith(0));
    start();
    BladeLink again(port_);
    EXPECT_EQ(claim(again, event(0)), heldTo(1));
}

// Kills the archiver while a blade sends, and lets the blade go on from what the next one claims.
TEST_F(ArchivingTest, KilledInMidStreamItResumesWithNothingMissing) {
    constexpr U32_t LAST_ID = 6000;
    U32_t next = 0;
    for (int round = 0; round < 4; ++round) {
        start({"--batch", "50", "--progress", "0"});
        BladeLink link(port_);
        const Claim held = claim(link, event(0));
        next = held == NO_DATA ? 0 : held.last + 1;
        ASSERT_EQ(held.flag, next == 0 ? 1U : 0U);
        // Up to where it shall die: the answer shows that it has come that far.
        const U32_t killAt = next + 700;
        link.ask(events(next, killAt) + inquiryMessage(LAST, {}, 0, 1));
        std::thread sender([&] {
            try {
                link.send(events(killAt + 1, killAt + 800));
            } catch (const std::runtime_error&) {
                // killed before all of it was taken
            }
        });
        archiver_->signal(SIGKILL);
        archiver_->wait();
        sender.join();
    }
    start();
    BladeLink link(port_);
    const Claim held = claim(link, event(0));
    ASSERT_EQ(held.flag, 0U);
    EXPECT_GE(held.last, 4 * 645U); // what was committed in batches of 50 is there
    link.send(events(held.last + 1, LAST_ID));
    EXPECT_EQ(claim(link, event(0)), heldTo(LAST_ID));
    U32_t id = 0;
    for (id = 0; id <= LAST_ID; id += 97) {
        const Bytes answer = link.ask(inquiryMessage(EXACT, {}, id, 1));
        ASSERT_EQ(Bytes(answer.begin() + 16, answer.end()), eventBody(event(id)));
    }
    EXPECT_EQ(stop(), exitedWith(0));
    EXPECT_THAT(archiver_->output(), HasSubstr(" 0 generations opened"));
    EXPECT_THAT(archiver_->output(), HasSubstr(" 0 gaps"));
}

TEST_F(ArchivingTest, ByteSentTwiceClosesTheLinkAndTheNextOneResumes) {
    start();
    {
        BladeLink link(port_);
        claim(link, event(0));
        Bytes stalled = eventMessage(event(11));
        stalled.insert(stalled.begin() + 170, stalled[169]);
        link.send(events(0, 10) + stalled + events(12, 20));
        EXPECT_TRUE(link.isClosed());
    }
    EXPECT_THAT(archiver_->waitForOutput("lost its message borders"),
                HasSubstr("event with id 11 given up, closed"));
    BladeLink link(port_);
    ASSERT_EQ(claim(link, event(0)), heldTo(10));
    link.send(events(11, 20));
    EXPECT_EQ(claim(link, event(0)), heldTo(20));
    EXPECT_EQ(stop(), exitedWith(1));
    EXPECT_THAT(archiver_->output(), HasSubstr(" 1 streams without borders, 1 events given up"));
}

TEST_F(ArchivingTest, ClearNamesWhatIsHeldOnce) {
    start({"--clear", "all", "--may-stop-blades"});
    BladeLink link(port_);
    EXPECT_EQ(claim(link, event(0)), NO_DATA);
    link.send(events(0, 9));
    EXPECT_EQ(claim(link, event(0)), (Claim{9, 2}));
    EXPECT_EQ(claim(link, event(0)), heldTo(9));
}

TEST_F(ArchivingTest, RebuiltLogIsAskedForAllItHas) {
    start();
    {
        BladeLink link(port_);
        claim(link, event(0));
        link.send(events(0, 9));
        ASSERT_EQ(claim(link, event(0)), heldTo(9));
    }
    // The same first event, as every log of this blade has; then other ones, up to the same id.
    const auto rebuilt = [](U32_t id) {
        EventFields fields = event(id);
        fields.time = id == 0 ? fields.time : 5000 + id;
        return fields;
    };
    BladeLink link(port_);
    ASSERT_EQ(claim(link, event(0)), heldTo(9));
    link.send(eventMessage(rebuilt(9)) + inquiryMessage(EXACT, {}, 9, 1));
    const Bytes found = link.receive();
    EXPECT_EQ(Bytes(found.begin() + 16, found.end()), eventBody(rebuilt(9)));
    const Bytes unasked = link.receive(); // nobody asked for a status
    EXPECT_EQ(get16(unasked, 4), 6U);
    EXPECT_EQ(get16(unasked, 6), 2U);
    EXPECT_EQ(claimOf(unasked), NO_DATA);
    for (U32_t id = 0; id < 10; ++id) {
        link.send(eventMessage(rebuilt(id)));
    }
    EXPECT_EQ(claim(link, event(0)), heldTo(9));
    const Bytes whole = link.ask(inquiryMessage(EXACT, {}, 3, 1));
    EXPECT_EQ(Bytes(whole.begin() + 16, whole.end()), eventBody(rebuilt(3)));
}

TEST_F(ArchivingTest, EventWhoseLastByteIsLateIsNeverClaimedAndComesAgain) {
    start();
    Bytes stalled = eventMessage(event(150));
    stalled.insert(stalled.begin() + 170, stalled[169]);
    {
        BladeLink link(port_);
        claim(link, event(140));
        link.send(events(140, 149));
        stalled.pop_back();
        link.send(stalled); // looks whole
        BladeLink other(port_);
        const auto isHeld = [&] {
            return get32(other.ask(inquiryMessage(EXACT, {}, 150, 1)), 8) == 1;
        };
        ASSERT_TRUE(waitUntil(isHeld)); // it was filed, on silence
        link.send({0xD7});
        EXPECT_TRUE(link.isClosed());
        EXPECT_TRUE(waitUntil([&] { return !isHeld(); }));
    }
    BladeLink link(port_);
    ASSERT_EQ(claim(link, event(140)), heldTo(149));
    link.send(events(149, 160));
    EXPECT_EQ(claim(link, event(140)), heldTo(160));
    stop();
    EXPECT_THAT(archiver_->output(), HasSubstr(" 0 generations opened"));
}

TEST_F(ArchivingTest, LaterLinkOfABladeReplacesTheFirst) {
    start();
    BladeLink first(port_);
    claim(first, event(0));
    BladeLink second(port_);
    EXPECT_EQ(claim(second, event(0)), NO_DATA);
    EXPECT_TRUE(first.isClosed());
    EXPECT_THAT(archiver_->waitForOutput("speaks on"), HasSubstr("closed"));
}

TEST_F(ArchivingTest, AnswerThatWouldComeInPiecesIsGivenWithoutTheEvent) {
    start({"--segment-size", "536"});
    BladeLink link(port_);
    claim(link, event(0));
    const LogName other{.slot = 2};
    const EventFields large = {.id = 7, .data = Bytes(3000, 0xD7)};
    const EventFields foreign = {.log = other, .id = 9, .data = Bytes(3000, 0xD7)};
    link.send(eventMessage(large) + events(8, 8) + eventMessage(foreign));
    Bytes expected = {0, 1, 0, 152, 0, 1, 0, 2, 0, 0, 0, 3, 0, 0, 0, 5};
    putLog(expected, other);
    put32(expected, 9);
    expected.resize(168);
    EXPECT_EQ(link.ask(inquiryMessage(EXACT, other, 9, 5)), expected);
    // After one of its own events the blade helps itself.
    const Bytes own = link.ask(inquiryMessage(NEXT, {}, 6, 5));
    EXPECT_EQ(get32(own, 8), 2U);
    EXPECT_EQ(get32(own, 16 + 136), 6U);
    // What fits comes.
    EXPECT_EQ(get32(link.ask(inquiryMessage(EXACT, {}, 8, 5)), 8), 1U);
    EXPECT_THAT(archiver_->waitForOutput("would arrive in pieces"), HasSubstr("3168 bytes"));
}

TEST_F(ArchivingTest, LongestAnswerCanBeRaisedAndLowered) {
    const Bytes large = eventMessage({.id = 0, .data = Bytes(3000, 0xD7)});
    start({"--segment-size", "536", "--answer-limit", "3168"});
    {
        BladeLink link(port_);
        link.send(large + inquiryMessage(EXACT, {}, 0, 5));
        EXPECT_EQ(link.receivePatiently().size(), 3168U); // as the operator wants it
    }
    stop();
    start({"--answer-limit", "3167"});
    BladeLink link(port_);
    const Bytes answer = link.ask(inquiryMessage(EXACT, {}, 0, 5));
    EXPECT_EQ(get32(answer, 8), 3U);
    EXPECT_EQ(answer.size(), 168U);
    archiver_->waitForOutput("an answer of 3168 bytes would arrive in pieces, 3167 arrive whole");
}

TEST_F(ArchivingTest, AnswerAboutTheAskerNeverMeetsItsInquiryForTheLast) {
    start();
    BladeLink link(port_);
    claim(link, event(0));
    const LogName other{.slot = 2};
    BladeLink neighbour(port_);
    neighbour.ask(events(0, 3, other) + inquiryMessage(FIRST, other, 0, 1));
    link.send(events(0, 3) + inquiryMessage(LAST, other, 0, 5) + inquiryMessage(FIRST, {}, 0, 5));
    EXPECT_EQ(get32(link.receivePatiently(), 8), 1U);
    Bytes expected = {0, 1, 0, 152, 0, 1, 0, 2, 0, 0, 0, 3, 0, 0, 0, 5};
    expected.resize(168); // names nobody
    EXPECT_EQ(link.receivePatiently(), expected);
    EXPECT_EQ(get32(link.ask(inquiryMessage(FIRST, {}, 0, 6)), 8), 1U);
}
