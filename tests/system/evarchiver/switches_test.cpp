#include "blade_link.h"

#include <gmock/gmock.h>

using namespace support;
using testing::HasSubstr;

class SwitchesTest : public ArchiverProcessTest {};

TEST_F(SwitchesTest, RefusedConnectionsAreRefused) {
    start({"--test-refuse"});
    EXPECT_THAT([this] { BladeLink link(port_); },
                testing::ThrowsMessage<std::runtime_error>(HasSubstr("Connection refused")));
    EXPECT_EQ(stop(), exitedWith(0));
}

TEST_F(SwitchesTest, NeverReadTakesTheConnectionAndNothingElse) {
    start({"--test-never-read"});
    BladeLink link(port_, 4096);
    link.send(statusOf(event(0)));
    EXPECT_GT(link.sendUntilFull(), 0U);
    EXPECT_TRUE(link.isQuiet());
    EXPECT_EQ(stop(), exitedWith(0));
    EXPECT_THAT(archiver_->output(), HasSubstr("summary: 0 messages"));
}

TEST_F(SwitchesTest, SmallReceiveBufferIsSoonerFull) {
    start({"--test-never-read"});
    BladeLink wide(port_, 4096);
    const size_t withDefault = wide.sendUntilFull();
    stop();
    start({"--test-never-read", "--receive-buffer", "2304"});
    BladeLink narrow(port_, 4096);
    EXPECT_LT(narrow.sendUntilFull(), withDefault / 2);
}

TEST_F(SwitchesTest, SmallSegmentsKeepTheBladesSendBufferSmall) {
    start({"--test-never-read", "--receive-buffer", "4096", "--segment-size", "536"});
    BladeLink narrow(port_);
    EXPECT_LT(narrow.sendUntilFull(), 400'000U);
}

TEST_F(SwitchesTest, ClosesAfterSoManyMessagesAndKeepsThem) {
    start({"--test-close-after", "4"});
    BladeLink link(port_);
    claim(link, event(0));
    link.send(events(0, 2));
    EXPECT_TRUE(link.isClosed());
    BladeLink again(port_);
    // Nothing was seen behind event 2: it comes again, as does event 1.
    EXPECT_EQ(claim(again, event(0)), (Claim{0, 0}));
    BladeLink other(port_);
    EXPECT_EQ(get32(other.ask(inquiryMessage(LAST, {}, 0, 1)), 16 + 136), 2U);
}

TEST_F(SwitchesTest, LateAnswerComesAfterItsTime) {
    start({"--test-late", "300"});
    BladeLink link(port_);
    const auto asked = std::chrono::steady_clock::now();
    EXPECT_EQ(claim(link, event(0)), (Claim{0, 1}));
    EXPECT_GE(std::chrono::steady_clock::now() - asked, std::chrono::milliseconds(300));
}

TEST_F(SwitchesTest, LateAnswersKeepTheirOrder) {
    start({"--test-late", "50"});
    BladeLink link(port_);
    for (U32_t handle = 0; handle < 20; ++handle) {
        link.send(inquiryMessage(LAST, {}, 0, handle));
    }
    for (U32_t handle = 0; handle < 20; ++handle) {
        EXPECT_EQ(get32(link.receivePatiently(), 12), handle);
    }
}

TEST_F(SwitchesTest, TwiceSendsTheSameAnswerAgain) {
    start({"--test-twice"});
    BladeLink link(port_);
    link.send(inquiryMessage(LAST, {}, 0, 5));
    const Bytes first = link.receivePatiently();
    EXPECT_EQ(link.receivePatiently(), first);
    EXPECT_EQ(get32(first, 12), 5U);
}

TEST_F(SwitchesTest, UnknownHandleIsNotTheOneAskedWith) {
    start({"--test-unknown-handle"});
    BladeLink link(port_);
    EXPECT_EQ(get32(link.ask(inquiryMessage(LAST, {}, 0, 5)), 12), 0x80000005U);
    EXPECT_EQ(get32(link.ask(statusOf(event(0), 1000)), 12), 0x800003E8U);
}

TEST_F(SwitchesTest, WrongVersionIsTwo) {
    start({"--test-wrong-version"});
    BladeLink link(port_);
    const Bytes answer = link.ask(inquiryMessage(LAST, {}, 0, 5));
    EXPECT_EQ(get16(answer, 0), 2U);
    EXPECT_EQ(get32(answer, 12), 5U);
}

TEST_F(SwitchesTest, OnlyTheAnswersNamedAreSpoilt) {
    start({"--test-wrong-version", "--test-answers", "inquiries"});
    BladeLink link(port_);
    EXPECT_EQ(get16(link.ask(inquiryMessage(LAST, {}, 0, 5)), 0), 2U);
    EXPECT_EQ(get16(link.ask(statusOf(event(0))), 0), 1U);
    stop();
    start({"--test-wrong-version", "--test-answers", "status"});
    BladeLink other(port_);
    EXPECT_EQ(get16(other.ask(inquiryMessage(LAST, {}, 0, 5)), 0), 1U);
    EXPECT_EQ(get16(other.ask(statusOf(event(0))), 0), 2U);
}
