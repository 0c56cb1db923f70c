#include "fault/log_file_dump.h"

#include "fixed_time_stamp.h"
#include "state/control.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <unistd.h>

namespace {

int lseekCalls;
int failingLseek; ///< 0: none

} // namespace

extern "C" off_t __real_lseek64(int fd, off_t offset, int whence);

extern "C" off_t __wrap_lseek64(int fd, off_t offset, int whence) {
    if (++lseekCalls == failingLseek) {
        errno = EIO;
        return -1;
    }
    return __real_lseek64(fd, offset, whence);
}

namespace {

/** The first 30 bytes of a piece that counts up from @p first, as the dump shows them. */
const char THIRTY_FROM_200[] =
    "C8C9CACB CCCDCECF D0D1D2D3 D4D5D6D7 D8D9DADB DCDDDEDF E0E1E2E3 E4E5";

class LogFileDump : public testing::Test {
  protected:
    void SetUp() override {
        empControl.empDebug = 1;
        file_ = tmpfile();
        for (int i = 0; i < 300; i++) {
            fputc(i & 0xFF, file_);
        }
        fflush(file_);
        empControl.eventLogFileFd = fileno(file_);
        seek(77);
        lseekCalls = 0;
    }
    void TearDown() override { fclose(file_); }

    static void seek(off_t position) { __real_lseek64(empControl.eventLogFileFd, position, 0); }
    static off_t position() { return __real_lseek64(empControl.eventLogFileFd, 0, SEEK_CUR); }

    static std::string dumpOf(U32_t position, U32_t length) {
        testing::internal::CaptureStdout();
        empEventLogFilePrint(position, length);
        return testing::internal::GetCapturedStdout();
    }
    static std::string title(U32_t position, U32_t length) {
        return STAMP "empEventLogFilePrint(): Print [" + std::to_string(static_cast<int>(length)) +
               "] bytes at Position [" + std::to_string(static_cast<int>(position)) + "].\n";
    }

  private:
    FILE* file_ = nullptr;
};

const char HUNDRED_FROM_0[] =
    "00010203 04050607 08090A0B 0C0D0E0F 10111213 14151617 18191A1B 1C1D1E1F\n"
    "20212223 24252627 28292A2B 2C2D2E2F 30313233 34353637 38393A3B 3C3D3E3F\n"
    "40414243 44454647 48494A4B 4C4D4E4F 50515253 54555657 58595A5B 5C5D5E5F\n"
    "60616263\n\n";
const char HUNDRED_FROM_100[] =
    "64656667 68696A6B 6C6D6E6F 70717273 74757677 78797A7B 7C7D7E7F 80818283\n"
    "84858687 88898A8B 8C8D8E8F 90919293 94959697 98999A9B 9C9D9E9F A0A1A2A3\n"
    "A4A5A6A7 A8A9AAAB ACADAEAF B0B1B2B3 B4B5B6B7 B8B9BABB BCBDBEBF C0C1C2C3\n"
    "C4C5C6C7\n\n";

TEST_F(LogFileDump, Of256BytesShowsTwoPiecesAnd30OfTheLast56) {
    EXPECT_EQ(dumpOf(0, 256),
              title(0, 256) + HUNDRED_FROM_0 + HUNDRED_FROM_100 + THIRTY_FROM_200 + STAMP "\n");
    EXPECT_EQ(position(), 77);
}

TEST_F(LogFileDump, Of100BytesShows30) {
    EXPECT_EQ(dumpOf(200, 100), title(200, 100) + THIRTY_FROM_200 + STAMP "\n");
}

TEST_F(LogFileDump, Of101BytesShowsOnePieceAndLeftoversOfIt) {
    EXPECT_EQ(dumpOf(0, 101),
              title(0, 101) + HUNDRED_FROM_0 +
                  "64010203 04050607 08090A0B 0C0D0E0F 10111213 14151617 18191A1B 1C1D" STAMP "\n");
}

TEST_F(LogFileDump, ShortFirstPieceIsFilledUpWithZeros) {
    EXPECT_EQ(dumpOf(254, 3),
              title(254, 3) +
                  "FEFF0000 00000000 00000000 00000000 00000000 00000000 00000000 0000" STAMP "\n");
}

TEST_F(LogFileDump, OfNothingShows30Zeros) {
    EXPECT_EQ(dumpOf(0, 0),
              title(0, 0) +
                  "00000000 00000000 00000000 00000000 00000000 00000000 00000000 0000" STAMP "\n");
    EXPECT_EQ(position(), 77);
}

TEST_F(LogFileDump, EndOfFileInsideAPieceIsAReadFailure) {
    EXPECT_EQ(dumpOf(201, 256),
              title(201, 256) + STAMP
                  "empEventLogFilePrint(): Linux read function fails! Read 100 bytes.");
    EXPECT_EQ(position(), 77);
}

TEST_F(LogFileDump, EndOfFileInsideTheLastPieceNamesTheCountAskedFor) {
    EXPECT_EQ(dumpOf(250, 56),
              title(250, 56) + STAMP
                  "empEventLogFilePrint(): Linux read function fails! Read [56] bytes.");
    EXPECT_EQ(position(), 77);
}

TEST_F(LogFileDump, PositionBehindTwoGigabytesShowsNegative) {
    EXPECT_EQ(dumpOf(4293371000U, 0), STAMP
              "empEventLogFilePrint(): Print [0] bytes at Position [-1596296].\n"
              "00000000 00000000 00000000 00000000 00000000 00000000 00000000 0000" STAMP "\n");
}

TEST_F(LogFileDump, PipeCannotBeSought) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    empControl.eventLogFileFd = ends[0];
    EXPECT_EQ(dumpOf(0, 256),
              title(0, 256) + STAMP
                  "empEventLogFilePrint(): Linux lseek function fails for Event Log File!");
}

TEST_F(LogFileDump, FailedFirstSeekEndsTheDump) {
    failingLseek = 2;
    EXPECT_EQ(dumpOf(0, 256),
              title(0, 256) + STAMP
                  "empEventLogFilePrint(): Linux lseek function fails for Event Log File!");
}

TEST_F(LogFileDump, FailedSeekBackInsideAPieceHasNoFullStop) {
    failingLseek = 3;
    EXPECT_EQ(dumpOf(250, 256),
              title(250, 256) + STAMP
                  "empEventLogFilePrint(): Linux read function fails! Read 100 bytes." STAMP
                  "empEventLogFilePrint(): Linux lseek function fails! Back to original position");
}

TEST_F(LogFileDump, FailedSeekBackAfterTheLastReadHasOne) {
    failingLseek = 3;
    EXPECT_EQ(dumpOf(250, 100),
              title(250, 100) + STAMP
                  "empEventLogFilePrint(): Linux read function fails! Read [100] bytes." STAMP
                  "empEventLogFilePrint(): Linux lseek function fails! Back to original position.");
}

TEST_F(LogFileDump, FailedSeekBackAtTheEndReplacesTheLineFeed) {
    failingLseek = 3;
    EXPECT_EQ(dumpOf(200, 100),
              title(200, 100) + THIRTY_FROM_200 +
                  STAMP
                  "empEventLogFilePrint(): Linux lseek function fails! Back to original position.");
}

TEST_F(LogFileDump, WithoutDebugOnlyTheBytesArePrinted) {
    empControl.empDebug = 0;
    EXPECT_EQ(dumpOf(200, 100), THIRTY_FROM_200);
    EXPECT_EQ(dumpOf(250, 100), "");
}

} // namespace
