/**
 * The log file at start-up together with the dispatch: the event that tells of a rebuilt log, and
 * an event taken in behind it.
 */
#include "dispatch.h"
#include "requests/event_log.h"
#include "startup/event_log_file.h"
#include "store_fixture.h"

#include <cstring>
#include <sys/socket.h>

namespace {

using logimage::Bytes;
using logimage::get16;
using logimage::get32;
using logimage::Image;
using logimage::Record;
using logimage::slice;

class RebuildTest : public StoreTest {
  protected:
    RebuildTest() { hooks::state.clock = logimage::TIME; }
    std::string process(const Image& image) {
        putImage(image);
        restart();
        return outputOf([] { empProcessEventLogFile(); });
    }
    static Image twoGaps() { return logimage::unwrapped(10, 40).dummyToEnd().flip(650).flip(1450); }
    /** What has been sent to the message switch. */
    Bytes sent() const {
        Bytes bytes(10'000);
        ssize_t got = recv(msmPeer, bytes.data(), bytes.size(), 0);
        bytes.resize(got < 0 ? 0 : static_cast<size_t>(got));
        return bytes;
    }
};

TEST_F(RebuildTest, RebuiltLogHoldsItsFirstEntryAndTheEventThatTellsOfIt) {
    process(twoGaps());
    EXPECT_EQ(state(), (LogState{360, END_OF_FILE, 0, 2, WRAP_FALSE, 0, 2, 2, 0, 0}));
    EXPECT_EQ(offsetOf(1), 200U);
    Bytes log = readLog();
    Record told;
    told.id = 1;
    told.source = 27;
    told.type = 2;
    told.category = 2;
    told.idVersion = 1;
    told.evId = 4;
    EXPECT_EQ(slice(log, 200, 160), encode(told));
    EXPECT_EQ(log.size(), END_OF_FILE);
    EXPECT_EQ(empControl.mmsgEventLogMsgReceive, 1U);
}

TEST_F(RebuildTest, CopyOfThatEventGoesToTheManagementInterface) {
    process(twoGaps());
    Bytes copy = sent();
    ASSERT_EQ(copy.size(), 216U);
    EXPECT_EQ(copy[8], 14);
    EXPECT_EQ(get16(copy, 10), 216);
    EXPECT_EQ(get32(copy, 12), 0x08000001U);
    EXPECT_EQ(copy[16], 27);
    EXPECT_EQ(get32(copy, 20), 0x40000000U);
    EXPECT_EQ(get32(copy, 24), 0U);
    EXPECT_EQ(get32(copy, 28), 0x40000000U);
    EXPECT_EQ(get32(copy, 32), 0U);
    EXPECT_EQ(slice(copy, 64, 152), slice(readLog(), 208, 152));
}

TEST_F(RebuildTest, HealthyLogTellsNothing) {
    process(logimage::unwrapped(10, 40).dummyToEnd());
    EXPECT_TRUE(sent().empty());
    process(Image());
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(state(), (LogState{200, END_OF_FILE, 0, 1, WRAP_FALSE, 0, 1, 1, 0, 0}));
}

TEST_F(RebuildTest, RebuiltLogIsCleanAtTheNextStart) {
    process(twoGaps());
    Bytes log = readLog();
    restart();
    outputOf([] { empProcessEventLogFile(); });
    EXPECT_EQ(state(), (LogState{360, END_OF_FILE, 0, 2, WRAP_FALSE, 0, 2, 0, 0, 0}));
    EXPECT_EQ(readLog(), log);
}

TEST_F(RebuildTest, EventTakenInIsStoredAsItsCopySays) {
    process(Image());
    Bytes message = logimage::zeros(64 + 152 + 5);
    message[8] = 14;
    logimage::put16(message, 10, static_cast<uint16_t>(message.size()));
    message[16] = 22;
    memset(message.data() + 64, 0xAA, 147); // whatever the sender says is overwritten
    message[64 + 147] = 3;
    message[64 + 148] = 8;
    message[64 + 149] = 1;
    logimage::put16(message, 64 + 150, 99);
    memcpy(message.data() + 216, "hello", 5);
    outputOf([&] { empRcvEventLogMsg(reinterpret_cast<MMSG_t*>(message.data())); });
    Record stored;
    stored.id = 1;
    stored.source = 22;
    stored.type = 3;
    stored.category = 8;
    stored.evId = 99;
    stored.length = 5;
    stored.body = {'h', 'e', 'l', 'l', 'o'};
    EXPECT_EQ(slice(readLog(), 200, 165), encode(stored));
    EXPECT_EQ(slice(sent(), 64, 157), slice(readLog(), 208, 157));
}

TEST_F(RebuildTest, KilledBeforeItsEventTheDebuggingCopyIsGoneAndTheEventIsLost) {
    putImage(twoGaps());
    restart();
    int zeros = (1'599'640 + 4063) / 4064;
    ChildEnd end = inChild([&] {
        hooks::state.exitBeforeWrite = 2 + zeros + 1;
        empProcessEventLogFile();
    });
    EXPECT_EQ(end.exitStatus, hooks::EXIT_STATUS);
    restart();
    std::string text = outputOf([] { empProcessEventLogFile(); });
    EXPECT_NE(text.find("Remove the debugging copy of the Event Log File"), std::string::npos);
    EXPECT_EQ(state(), (LogState{200, END_OF_FILE, 0, 1, WRAP_FALSE, 0, 1, 0, 0, 0}));
    EXPECT_TRUE(sent().empty());
}

} // namespace
