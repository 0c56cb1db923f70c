#include "evfleet/simulated_log.h"

#include "link_messages.h"

#include <gtest/gtest.h>

namespace {

using evfleet::LogShape;
using evfleet::SimulatedLog;
using support::Bytes;

LogShape shapeOfTests() {
    LogShape shape;
    shape.seed = 5;
    shape.smallest = 0;
    shape.largest = 3848;
    shape.ring = 10;
    shape.epoch = 1000;
    return shape;
}

class SimulatedLogTest : public testing::Test {
  protected:
    Bytes event(U32_t id, U32_t rebuilt = 0) const {
        Bytes bytes;
        log_.appendEvent(bytes, id, rebuilt);
        return bytes;
    }

    LogShape shape_ = shapeOfTests();
    SimulatedLog log_{shape_, 7};
};

TEST_F(SimulatedLogTest, BeginsWithOneEvent) {
    EXPECT_EQ(log_.first(), 1U);
    EXPECT_EQ(log_.next(), 2U);
}

TEST_F(SimulatedLogTest, OverwritesTheOldestWhenTheRingIsFull) {
    log_.log(9);
    EXPECT_EQ(log_.first(), 1U);
    log_.log(1);
    EXPECT_EQ(log_.first(), 2U);
    log_.log(100);
    EXPECT_EQ(log_.first(), 102U);
    EXPECT_EQ(log_.next(), 112U);
}

TEST_F(SimulatedLogTest, ClearingKeepsTheNewest) {
    log_.log(5);
    log_.clear(3);
    EXPECT_EQ(log_.first(), 4U);
    log_.clear(2);
    EXPECT_EQ(log_.first(), 4U);
    log_.clear(1000);
    EXPECT_EQ(log_.first(), 6U);
}

TEST_F(SimulatedLogTest, EventBearsIdentityIdTimeAndLength) {
    const Bytes bytes = event(3);
    EXPECT_EQ(support::getText(bytes, 0), "FLEET");
    EXPECT_EQ(support::getText(bytes, 64), "SIM-000007");
    EXPECT_EQ(support::get32(bytes, 128), 7U);    // slot
    EXPECT_EQ(support::get32(bytes, 132), 1U);    // instance
    EXPECT_EQ(support::get32(bytes, 136), 3U);    // id
    EXPECT_EQ(support::get32(bytes, 140), 1003U); // time
    EXPECT_EQ(support::get16(bytes, 144), bytes.size() - 152);
    EXPECT_LE(bytes[146], 34); // source
    EXPECT_NE(support::get16(bytes, 150), 1U);
}

TEST_F(SimulatedLogTest, SameEventHasTheSameBytesAndNoOtherOne) {
    EXPECT_EQ(event(3), event(3));
    EXPECT_NE(event(1), event(1, 1)) << "of a rebuilt log";
    Bytes other;
    SimulatedLog(shape_, 8).appendEvent(other, 3, 0);
    EXPECT_NE(event(3), other);
}

TEST_F(SimulatedLogTest, LogsCanBeginAlike) {
    shape_.beginsAlike = true;
    EXPECT_EQ(event(1), event(1, 1));
    EXPECT_NE(event(2), event(2, 1));
}

TEST_F(SimulatedLogTest, SizesStayWithinTheirBounds) {
    shape_.smallest = 10;
    shape_.largest = 12;
    bool isSmallest = false;
    bool isLargest = false;
    for (U32_t id = 2; id < 100; ++id) {
        const size_t size = event(id).size() - 152;
        EXPECT_GE(size, 10U);
        EXPECT_LE(size, 12U);
        isSmallest = isSmallest || size == 10;
        isLargest = isLargest || size == 12;
    }
    EXPECT_TRUE(isSmallest && isLargest);
    EXPECT_EQ(event(1).size(), 152U + 24U) << "the first must tell logs apart";
}

TEST_F(SimulatedLogTest, WrongClockIsWrongByTheSameAndNoMoreThanAsked) {
    shape_.clockError = 50;
    bool isWrong = false;
    for (U32_t blade = 0; blade < 20; ++blade) {
        const SimulatedLog log(shape_, blade);
        Bytes second;
        Bytes third;
        log.appendEvent(second, 2, 0);
        log.appendEvent(third, 3, 0);
        const U32_t time = support::get32(second, 140);
        EXPECT_GE(time, 952U);
        EXPECT_LE(time, 1052U);
        EXPECT_EQ(support::get32(third, 140), time + 1);
        isWrong = isWrong || time != 1002;
    }
    EXPECT_TRUE(isWrong);
}

TEST_F(SimulatedLogTest, ClockJumpsForwardBackAndToTheEndsOfTime) {
    shape_.clockJumps = 4;
    shape_.epoch = 1'700'000'000;
    bool goesBack = false;
    bool isEarly = false;
    bool isLate = false;
    bool isRight = false;
    U32_t before = 0;
    for (U32_t id = 1; id < 400; ++id) {
        const U32_t time = support::get32(event(id), 140);
        EXPECT_EQ(time, support::get32(event(id), 140));
        goesBack = goesBack || time < before;
        isEarly = isEarly || time < 1000;
        isLate = isLate || time >= 0x80000000;
        isRight = isRight || time == shape_.epoch + id;
        before = time;
    }
    EXPECT_TRUE(goesBack && isEarly && isLate && isRight);
}

TEST_F(SimulatedLogTest, MessageIsTheEventBehindItsHeader) {
    Bytes message;
    log_.appendEventMessage(message, 1);
    const Bytes body = event(1);
    const Bytes header = support::requestHeader(static_cast<U32_t>(body.size()), 1, 0);
    EXPECT_EQ(message, support::operator+(header, body));
}

TEST_F(SimulatedLogTest, StatusRequestTellsOfTheOldestEvent) {
    log_.log(15);
    const Bytes oldest = event(log_.first());
    Bytes bytes;
    log_.appendStatusRequest(bytes, 1000);
    support::LogName name{"FLEET", "SIM-000007", 7, 1};
    EXPECT_EQ(bytes, support::statusRequest(name, log_.first(),
                                            Bytes(oldest.begin() + 152, oldest.end()), 1000));
    EXPECT_EQ(bytes.size(), 196U);
}

TEST(BladeNumber, OnlySimulatedBladesHaveOne) {
    EXPECT_EQ(evfleet::bladeNumberOf("SIM-000123"), 123);
    EXPECT_EQ(evfleet::bladeNumberOf("SIM-"), -1);
    EXPECT_EQ(evfleet::bladeNumberOf("SIM-12x"), -1);
    EXPECT_EQ(evfleet::bladeNumberOf("BLADE-1"), -1);
}

} // namespace
