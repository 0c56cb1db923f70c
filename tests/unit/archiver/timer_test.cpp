#include "archiver/timer.h"

#include "state/control.h"

#include <gtest/gtest.h>

namespace {

struct timeval timer;

/** One call; timer is what is left. */
bool expired(struct timeval left, struct timeval step) {
    empControl.selectTimeout = step;
    timer = left;
    return empTimerExpired(&timer);
}

void expectLeft(long seconds, long microseconds) {
    EXPECT_EQ(timer.tv_sec, seconds);
    EXPECT_EQ(timer.tv_usec, microseconds);
}

TEST(Timer, LosesOneStep) {
    EXPECT_FALSE(expired({300, 0}, {1, 0}));
    expectLeft(299, 0);
}

TEST(Timer, EqualTimerReachesZeroAndExpiresOnTheNextCall) {
    EXPECT_FALSE(expired({1, 0}, {1, 0}));
    expectLeft(0, 0);
    EXPECT_TRUE(empTimerExpired(&timer));
    expectLeft(0, 0);
}

TEST(Timer, BorrowsASecond) {
    EXPECT_FALSE(expired({5, 0}, {0, 100}));
    expectLeft(4, 999'900);
    EXPECT_FALSE(expired({2, 50}, {1, 100}));
    expectLeft(0, 999'950);
}

TEST(Timer, EqualMicrosecondsNeedNoBorrow) {
    EXPECT_FALSE(expired({3, 100}, {0, 100}));
    expectLeft(3, 0);
}

TEST(Timer, SecondsDecideBeforeMicroseconds) {
    EXPECT_TRUE(expired({0, 999'999}, {1, 0}));
    expectLeft(0, 999'999);
    EXPECT_FALSE(expired({1, 0}, {0, 999'999}));
    expectLeft(0, 1);
}

TEST(Timer, MicrosecondsDecideBetweenEqualSeconds) {
    EXPECT_TRUE(expired({1, 99}, {1, 100}));
    EXPECT_FALSE(expired({1, 100}, {1, 100}));
    expectLeft(0, 0);
}

TEST(Timer, FiveSecondsOfHundredMicrosecondsTake50001Calls) {
    timer = {5, 0};
    empControl.selectTimeout = {0, 100};
    int calls = 1;
    while (!empTimerExpired(&timer)) {
        calls++;
    }
    EXPECT_EQ(calls, 50'001);
}

} // namespace
