#include "diag/debug_line.h"

#include "state/control.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

S64_t clockSeconds;
int stampsMade;

} // namespace

extern "C" S64_t __wrap__Z12mpuGetSecondv() {
    return clockSeconds;
}

extern "C" void __wrap__Z13get_timestampPc(char* buf) {
    stampsMade++;
    errno = ENOENT; // as when the time zone's file is missing
    if (clockSeconds != 3000) {
        snprintf(buf, 64, "stamp %d", static_cast<int>(clockSeconds));
    }
}

namespace {

class DebugLine : public testing::Test {
  protected:
    void SetUp() override {
        empControl.empDebug = 1;
        clockSeconds = 1000;
        testing::internal::CaptureStdout();
    }
};

TEST_F(DebugLine, StampTwoBlanksAndTheMessage) {
    empDebugLine("main(): %d of [%.64s]\n", -7, "text");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "stamp 1000  main(): -7 of [text]\n");
}

TEST_F(DebugLine, SilentUnlessDebugIsOne) {
    for (int debug : {0, 2, 255}) {
        empControl.empDebug = static_cast<U8_t>(debug);
        empDebugLine("main(): never seen\n");
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(stampsMade, 0);
}

TEST_F(DebugLine, StampIsMadeOnceASecond) {
    empDebugLine("a\n");
    empDebugLine("b\n");
    clockSeconds = 1001;
    empDebugLine("c\n");
    clockSeconds = 999; // set back
    empDebugLine("d\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "stamp 1000  a\nstamp 1000  b\nstamp 1001  c\nstamp 999  d\n");
    EXPECT_EQ(stampsMade, 3);
}

TEST_F(DebugLine, TimeThatCannotBeBrokenDownLeavesTheBlanks) {
    empDebugLine("a\n");
    clockSeconds = 3000;
    empDebugLine("b\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "stamp 1000  a\n  b\n");
}

TEST_F(DebugLine, ErrnoIsLeftAsItWas) {
    errno = EDOM;
    empDebugLine("a\n");
    EXPECT_EQ(errno, EDOM);
    empFlushOutput();
    EXPECT_EQ(errno, EDOM);
    testing::internal::GetCapturedStdout();
}

TEST_F(DebugLine, LongMessageStandsWhole) {
    std::string text(3000, 'x');
    empDebugLine("%s\n", text.c_str());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "stamp 1000  " + text + "\n");
}

} // namespace
