#include "startup/event_log_file.h"

#include "altEventLog.h"
#include "dying_child.h"
#include "emp_fixture.h"
#include "emp_mesgs.h"
#include "fixed_clock.h"
#include "fixed_time_stamp.h"
#include "mmsg.h"

#include <cstring>

using namespace support;

namespace {

Bytes dispatched; ///< the buffer as it was handed to the dispatcher
const MMSG_t* dispatchedFrom;
int dispatches;

} // namespace

extern "C" {

void __real__Z19empProcEventMmsgMsgP6MMSG_s(MMSG_t* msg);

void __wrap__Z19empProcEventMmsgMsgP6MMSG_s(MMSG_t* msg) {
    dispatches++;
    dispatchedFrom = msg;
    dispatched = bytesAt(msg, 4064);
    __real__Z19empProcEventMmsgMsgP6MMSG_s(msg);
}
}

namespace {

/** The header of a start-up event. */
Bytes headerOfLength(U8_t high, U8_t low) {
    Bytes header(64);
    header[8] = 14;
    header[9] = 1;
    header[10] = high;
    header[11] = low;
    header[12] = 8;
    header[15] = 1;
    header[16] = 27;
    header[20] = 0x08;
    return header;
}

/** A record of this blade without data. */
std::string record(U32_t sequenceId) {
    EmpEvRecord_t header = {};
    header.evRdSignature = EMP_RECORD_SIGNATURE;
    header.evRdVersion = 1;
    setText(header.evEnclosureId, "CHASSIS-7");
    setText(header.evBladeId, "BLADE-42");
    header.evSlotId = 3;
    header.evInstanceNumber = 6;
    header.evSequenceId = sequenceId;
    header.evSource = 18;
    header.evType = 1;
    header.evRdCRCChecksum = computeCRC32(header.evEnclosureId, 152);
    return std::string(reinterpret_cast<const char*>(&header), sizeof(header));
}

class StartupEvent : public EmpTest {
  protected:
    void startLog() {
        outputOf(empProcessEventLogFile);
        ASSERT_EQ(dispatches, 0);
    }

    static std::string send(U16_t id, U8_t type, const void* data, U16_t length) {
        return outputOf([=] { empSendEventMmsgToEmpInitTime(id, type, data, length); });
    }

    std::string path() const { return directory_.file("kelta_eventlog"); }
};

TEST_F(StartupEvent, MessageOfAnEventWithData) {
    startLog();
    memset(empControl.empInMsg, 0xA5, 4064);
    send(0x0102, 3, "DATA!", 5);
    Bytes event(152);
    event[147] = 3; // evType
    event[148] = 2; // evCategory
    event[149] = 1; // evIdVersion
    event[150] = 1; // evId
    event[151] = 2;
    Bytes expected =
        joined({headerOfLength(0, 221), event, {'D', 'A', 'T', 'A', '!'}, Bytes(4064 - 221)});
    EXPECT_EQ(dispatched, expected) << "and nothing of an earlier message";
    EXPECT_EQ(dispatchedFrom, reinterpret_cast<MMSG_t*>(empControl.empInMsg));
    EXPECT_EQ(empControl.mmsgEventLogMsgReceive, 1U);
}

TEST_F(StartupEvent, LengthZeroDoesNotTouchTheData) {
    startLog();
    send(4, 2, nullptr, 0);
    EXPECT_EQ(bytesAt(dispatched.data(), 64), headerOfLength(0, 216));
    EXPECT_EQ(msm_.receive().size(), 216U);
}

TEST_F(StartupEvent, LargestDataFits) {
    startLog();
    Bytes data(3848, 0x77);
    send(3, 1, data.data(), 3848);
    EXPECT_EQ(bytesAt(dispatched.data(), 64), headerOfLength(0x0F, 0xE0));
    EXPECT_EQ(msm_.receive().size(), 4064U);
}

TEST_F(StartupEvent, LongerDataIsCut) {
    startLog();
    Bytes data(65535, 0x77);
    memset(&data[3848], 0x88, 65535 - 3848);
    for (int length : {3849, 65535}) {
        send(3, 1, data.data(), static_cast<U16_t>(length));
        EXPECT_EQ(bytesAt(dispatched.data(), 64), headerOfLength(0x0F, 0xE0));
        EXPECT_EQ(dispatched.back(), 0x77);
        EXPECT_EQ(msm_.receive().size(), 4064U);
    }
}

TEST_F(StartupEvent, FreshLogTellsNothing) {
    outputOf(empProcessEventLogFile);
    EXPECT_EQ(dispatches, 0);
    EXPECT_FALSE(msmHasData());
    EXPECT_EQ(empControl.empSequenceId, 1U);
}

TEST_F(StartupEvent, RebuiltLogTellsOfItsDamage) {
    writeFile(path(),
              record(0) + std::string(10, '\0') + record(5) + std::string(10, '\0') + record(9));
    outputOf(empProcessEventLogFile);
    EXPECT_EQ(dispatches, 1);
    EXPECT_EQ(empControl.empSequenceId, 2U);
    EXPECT_EQ(empControl.empWrite, 360U);

    Bytes header = headerOfLength(0, 216);
    header[20] = 0x40;
    header[28] = 0x40;
    Bytes event = joined({textField("CHASSIS-7"),
                          textField("BLADE-42"),
                          {0, 0, 0, 3},             // evSlotId
                          {0, 0, 0, 6},             // evInstanceNumber: that of the damaged log
                          {0, 0, 0, 1},             // evSequenceId: behind the first entry
                          {0x65, 0x43, 0x21, 0x00}, // evTime
                          {0, 0},                   // evStructLength
                          {27, 2, 2, 1, 0, 4}});
    EXPECT_EQ(msm_.receive(), joined({header, event}));
    EXPECT_FALSE(msmHasData());
    std::string log = readFile(path());
    EXPECT_EQ(bytesAt(&log[208], 152), event) << "the second record of the new log";
}

} // namespace
