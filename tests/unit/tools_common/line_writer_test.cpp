#include "common/line_writer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace tools;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

/** A pipe whose reader reads when the test says so. */
class LineReader : public testing::Test {
  protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        ASSERT_EQ(pipe(ends), 0);
    }
    void TearDown() override {
        close(ends[0]);
        close(ends[1]);
    }

    /** What is there now. */
    std::string readAll() const {
        std::string text(1 << 20, '\0');
        fcntl(ends[0], F_SETFL, O_NONBLOCK);
        ssize_t count = read(ends[0], text.data(), text.size());
        text.resize(count > 0 ? static_cast<size_t>(count) : 0);
        return text;
    }

    int ends[2] = {-1, -1};
};

const std::string LINE(199, 'x');

} // namespace

TEST_F(LineReader, GetsEveryLine) {
    LineWriter writer(ends[1], "tool");
    writer.write("one");
    writer.write("");
    writer.write("three");
    EXPECT_EQ(readAll(), "one\n\nthree\n");
    EXPECT_EQ(writer.dropped(), 0U);
}

TEST_F(LineReader, ThatStallsLosesLinesAndIsToldHowMany) {
    LineWriter writer(ends[1], "tool");
    U64_t written = 0;
    for (; writer.dropped() < 5; ++written) {
        ASSERT_LT(written, 100'000U);
        writer.write(LINE);
    }
    std::string first = readAll();
    EXPECT_EQ(first.size(), (written - 5) * 200);
    writer.write("again");
    EXPECT_EQ(readAll(), "tool: 5 lines were dropped here: nobody read\nagain\n");
    EXPECT_EQ(writer.dropped(), 5U);
}

TEST_F(LineReader, FindsNoTornLineAfterAStall) {
    LineWriter writer(ends[1], "tool");
    // Longer than what a pipe takes whole or not at all, so that one goes out in part.
    const std::string longLine(10'000, 'y');
    for (int i = 0; i < 50; ++i) {
        writer.write(longLine);
    }
    std::string all = readAll();
    writer.write("last");
    all += readAll();
    EXPECT_THAT(all, EndsWith(" lines were dropped here: nobody read\nlast\n"));
    size_t begin = 0;
    for (size_t end = 0; all.compare(begin, 5, "tool:") != 0; begin = end + 1) {
        end = all.find('\n', begin);
        ASSERT_EQ(end - begin, longLine.size());
    }
}

TEST_F(LineReader, ThatVanishesStopsNothing) {
    LineWriter writer(ends[1], "tool");
    close(ends[0]);
    writer.write("into the void");
    EXPECT_EQ(writer.dropped(), 1U);
}

TEST_F(LineReader, KeepsItsPipeAsItWas) {
    LineWriter writer(ends[1], "tool");
    writer.write("a");
    // Other programs write to the same pipe, and expect to wait.
    EXPECT_EQ(fcntl(ends[1], F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(LineReader, OnASocketIsNotWaitedForEither) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    LineWriter writer(pair[1], "tool");
    for (int i = 0; writer.dropped() == 0; ++i) {
        ASSERT_LT(i, 100'000);
        writer.write(LINE);
    }
    close(pair[0]);
    writer.write(LINE);
    EXPECT_EQ(writer.dropped(), 2U);
    close(pair[1]);
}

TEST_F(LineReader, OfAFileGetsLinesBehindThoseOfOthers) {
    char path[] = "/tmp/linesXXXXXX";
    int file = mkstemp(path);
    ASSERT_EQ(write(file, "before\n", 7), 7);
    LineWriter writer(file, "tool");
    writer.write("ours");
    ASSERT_EQ(write(file, "after\n", 6), 6);
    char text[64] = {};
    ASSERT_EQ(pread(file, text, sizeof(text), 0), 18);
    EXPECT_STREQ(text, "before\nours\nafter\n");
    close(file);
    unlink(path);
}

TEST_F(LineReader, OfAClosedDescriptorCostsLinesOnly) {
    LineWriter writer(987, "tool");
    writer.write("nowhere");
    EXPECT_EQ(writer.dropped(), 1U);
}
