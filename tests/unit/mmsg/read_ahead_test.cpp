#include "mmsg/read_ahead.h"

#include "emp_fixture.h"

#include <cerrno>
#include <random>
#include <sys/socket.h>

using namespace support;

namespace {

class ReadAhead : public EmpTest {
  protected:
    /** Result and bytes of one receive. */
    static Bytes receive(size_t length, int flags = 0) {
        Bytes bytes(length, 0xEE);
        ssize_t result = empReceiveFromMsm(bytes.data(), length, flags);
        EXPECT_GE(result, 0) << errno;
        bytes.resize(result < 0 ? 0 : static_cast<size_t>(result));
        return bytes;
    }
};

TEST_F(ReadAhead, PeekGivesWhatIsThereAlwaysFromTheFront) {
    msm_.send({1, 2, 3});
    EXPECT_EQ(receive(2, MSG_PEEK), (Bytes{1, 2}));
    EXPECT_EQ(receive(9, MSG_PEEK), (Bytes{1, 2, 3}));
    EXPECT_EQ(receive(1), (Bytes{1}));
    EXPECT_EQ(receive(9, MSG_PEEK), (Bytes{2, 3}));
}

TEST_F(ReadAhead, BytesThatArriveLaterShowBehindThoseThatWait) {
    msm_.send({1, 2, 3});
    EXPECT_EQ(receive(1), (Bytes{1}));
    msm_.send({4});
    EXPECT_EQ(receive(3, MSG_PEEK), (Bytes{2, 3, 4}));
    EXPECT_EQ(receive(9), (Bytes{2, 3, 4}));
    EXPECT_FALSE(empMsmReadAhead());
}

TEST_F(ReadAhead, TellsWhetherBytesWait) {
    msm_.send({1, 2});
    EXPECT_FALSE(empMsmReadAhead()) << "nothing was asked for yet";
    receive(1, MSG_PEEK);
    EXPECT_TRUE(empMsmReadAhead());
    receive(1);
    EXPECT_TRUE(empMsmReadAhead());
    receive(1);
    EXPECT_FALSE(empMsmReadAhead());
}

TEST_F(ReadAhead, EndOfStreamShowsBehindTheBytesBeforeItAndForEver) {
    msm_.send({1, 2});
    msm_.close();
    EXPECT_EQ(receive(9, MSG_PEEK), (Bytes{1, 2}));
    EXPECT_EQ(receive(9), (Bytes{1, 2}));
    EXPECT_EQ(receive(9, MSG_PEEK), Bytes());
    EXPECT_EQ(receive(9), Bytes());
}

TEST_F(ReadAhead, ErrorShowsBehindTheBytesBeforeItOnce) {
    ASSERT_EQ(send(empControl.socketFdMSM, "x", 1, 0), 1);
    msm_.send({1, 2});
    msm_.close(); // with unread data: our end is reset
    errno = EDOM;
    EXPECT_EQ(receive(1), (Bytes{1}));
    EXPECT_EQ(receive(9, MSG_PEEK), (Bytes{2})) << "topping up meets the error";
    EXPECT_EQ(receive(9), (Bytes{2}));
    EXPECT_EQ(errno, EDOM) << "nothing has failed";
    U8_t byte = 0;
    EXPECT_EQ(empReceiveFromMsm(&byte, 1, 0), -1);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_EQ(receive(9), Bytes()) << "then the stream ends, as the socket's does";
}

TEST_F(ReadAhead, ToppingUpInVainLeavesErrno) {
    msm_.send({1});
    errno = EDOM;
    EXPECT_EQ(receive(9, MSG_PEEK), (Bytes{1}));
    EXPECT_EQ(errno, EDOM);
}

TEST_F(ReadAhead, LongestMessageFitsBehindTheRestOfAnother) {
    Bytes longest(65535);
    for (size_t i = 0; i < longest.size(); i++) {
        longest[i] = static_cast<U8_t>(i % 251);
    }
    msm_.send({1, 2, 3});
    EXPECT_EQ(receive(1), (Bytes{1}));
    msm_.send(longest);
    EXPECT_EQ(receive(2), (Bytes{2, 3}));
    EXPECT_EQ(receive(65535, MSG_PEEK), longest);
    EXPECT_EQ(receive(65535), longest);
}

/** The same bytes, sent at the same times, through the buffer and through a bare socket. */
TEST_F(ReadAhead, EveryReceiveShowsWhatTheSocketWouldHaveShown) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    MmsgClient bareMsm(ends[1]);
    MmsgClient bare(ends[0]);
    std::mt19937 random(20061122);
    size_t there = 0;
    U8_t next = 0;
    for (int step = 0; step < 30'000; step++) {
        if (there == 0 || (random() % 4 == 0 && there < 60'000)) {
            Bytes piece(1 + random() % (random() % 8 == 0 ? 4064 : 80));
            for (U8_t& byte : piece) {
                byte = next++;
            }
            msm_.send(piece);
            bareMsm.send(piece);
            there += piece.size();
        }
        size_t length = 1 + random() % (random() % 4 == 0 ? 5000 : 100);
        int flags = random() % 2 == 0 ? MSG_PEEK : 0;
        Bytes expected(length);
        ssize_t result = recv(bare.descriptor(), expected.data(), length, flags);
        ASSERT_GT(result, 0);
        expected.resize(static_cast<size_t>(result));
        ASSERT_EQ(receive(length, flags), expected) << "step " << step;
        there -= flags == 0 ? expected.size() : 0;
    }
}

} // namespace
