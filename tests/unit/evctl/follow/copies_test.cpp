#include "evctl/follow/copies.h"

#include "mmsg_client.h"
#include "temp_directory.h"

#include <gtest/gtest.h>

using evctl::Bytes;
using evctl::LogPosition;

namespace {

constexpr U8_t TIME = 100;

const LogPosition AT_FIVE = {.log = {.enclosure = "E", .blade = "B", .slot = 2, .instance = 7},
                             .sequenceId = 5,
                             .shown = {{4, TIME}, {5, TIME}}};

/** A copy for the management interface, of a log in slot 2. */
Bytes copy(U8_t sequenceId, U8_t instance = 7, char blade = 'B', U8_t time = TIME) {
    Bytes body(152);
    body[0] = 'E';
    body[64] = static_cast<U8_t>(blade);
    body[131] = 2;
    body[135] = instance;
    body[139] = sequenceId;
    body[143] = time;
    return support::makeMmsg({.type = 1}, body);
}

class CopiesTest : public testing::Test {
  protected:
    support::TempDirectory directory_;
    support::MmsgListener listener_{directory_.file("smi_ind")};
    evctl::Copies copies_{directory_.path()};
    support::MmsgClient peer_{listener_.accept()};
};

} // namespace

TEST_F(CopiesTest, WhatHasBeenShownIsPassedOver) {
    for (U8_t id = 4; id <= 7; id++) {
        peer_.send(copy(id));
    }
    EXPECT_EQ(copies_.next(AT_FIVE), copy(6));
    LogPosition shown = AT_FIVE;
    shown.shown[6] = TIME;
    peer_.send(copy(6)); // once more
    EXPECT_EQ(copies_.next(shown), copy(7));
    shown.shown[7] = TIME;
    peer_.send(copy(8));
    EXPECT_EQ(copies_.next(shown), copy(8));
}

TEST_F(CopiesTest, LogThatHasBegunAgainGoesOn) {
    peer_.send(copy(5));
    for (U8_t id = 4; id <= 6; id++) {
        peer_.send(copy(id, 7, 'B', TIME + 1));
    }
    LogPosition shown = AT_FIVE;
    for (U8_t id = 4; id <= 6; id++) {
        EXPECT_EQ(copies_.next(shown), copy(id, 7, 'B', TIME + 1));
        EmpEvLogHeader_t header{};
        header.evInstanceNumber = 7;
        header.evSequenceId = id;
        header.evTime = TIME + 1;
        shown.moveTo(header);
        EXPECT_EQ(shown.sequenceId, id);
    }
    EXPECT_EQ(shown.shown, (std::map<U32_t, U32_t>{{4, TIME + 1}, {5, TIME + 1}, {6, TIME + 1}}));
}

TEST_F(CopiesTest, OfAllThatIsFollowedOnlyALogFullIsRemembered) {
    LogPosition shown = AT_FIVE;
    EmpEvLogHeader_t header{};
    header.evInstanceNumber = 7;
    for (U32_t id = 6; id <= 40'000; id++) {
        header.evSequenceId = id;
        shown.moveTo(header);
    }
    EXPECT_EQ(shown.shown.size(), 1'600'000U / 160);
    EXPECT_EQ(shown.shown.rbegin()->first, 40'000U);
}

TEST_F(CopiesTest, WhatCameDuringTheWalkIsKept) {
    peer_.send(copy(6));
    peer_.send(copy(7));
    copies_.takeIn(AT_FIVE);
    peer_.close();
    EXPECT_EQ(copies_.next(AT_FIVE), copy(6));
}

TEST_F(CopiesTest, OtherLogsAreNotTheWalks) {
    peer_.send(copy(9, 7, 'C'));
    peer_.send(copy(6));
    EXPECT_EQ(copies_.next(AT_FIVE), copy(6));
}

TEST_F(CopiesTest, NextInstanceBeginsAnew) {
    peer_.send(copy(0, 8));
    EXPECT_EQ(copies_.next(AT_FIVE), copy(0, 8));
    LogPosition shown = AT_FIVE;
    EmpEvLogHeader_t header{};
    header.evInstanceNumber = 8;
    header.evTime = TIME;
    shown.moveTo(header);
    peer_.send(copy(0, 8));
    peer_.send(copy(1, 8));
    EXPECT_EQ(copies_.next(shown), copy(1, 8));
}

TEST_F(CopiesTest, MessagesOtherThanEventsAreDropped) {
    peer_.send(support::makeMmsg({.type = 2, .cont = 0x40}, Bytes(152)));
    peer_.send(support::makeMmsg({.type = 1}, Bytes(10)));
    peer_.send(copy(6));
    testing::internal::CaptureStderr();
    EXPECT_EQ(copies_.next(AT_FIVE), copy(6));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "evctl: event message of 74 bytes is too short\n");
}
