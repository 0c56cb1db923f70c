#include "fault/bugcheck.h"

#include "altEventLog.h"
#include "dying_child.h"
#include "emp_mesgs.h"
#include "fault/records.h"
#include "fault_fixture.h"
#include "fixed_time_stamp.h"
#include "state/control.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <sys/mman.h>

namespace {

/** What the writer of alternate event logs was given, seen from outside the dying process. */
struct Written_t {
    int count;
    struct {
        U8_t image[2200];
        bool withParameters;
    } records[30];
};
Written_t* written;

enum { QUIET, BUG_CHECK_AGAIN, ABORT } writerBehaviour;

MPU_PARAMS_t parameters;

} // namespace

extern "C" S32_t
__wrap__Z12altEventLogMPK13EmpEvLogMsg_sPK12MPU_PARAMS_s(const EmpEvLogMsg_t* evLogMsgPtr,
                                                         const MPU_PARAMS_t* mpuParamsPtr) {
    auto& record = written->records[written->count++];
    memcpy(record.image, evLogMsgPtr, sizeof(record.image));
    record.withParameters = mpuParamsPtr == &parameters;
    if (writerBehaviour == BUG_CHECK_AGAIN) {
        EMP_BUGCHECK(EMP_HERE, "second [%d]", 2);
    }
    if (writerBehaviour == ABORT) {
        abort();
    }
    return 10001;
}

namespace {

std::string hexPieces(const std::string& bytes, size_t count) {
    std::string text;
    for (size_t i = 0; i < count; i++) {
        char digits[3];
        snprintf(digits, sizeof(digits), "%02X", static_cast<unsigned char>(bytes.at(i)));
        text += digits;
        size_t n = i + 1;
        text += n % 100 == 0 ? "\n\n" : n % 32 == 0 ? "\n" : n % 4 == 0 ? " " : "";
    }
    return text;
}

/** The log file of these tests: a byte says where it stands. */
std::string logBytes(size_t position, size_t length) {
    std::string bytes;
    for (size_t i = position; i < position + length; i++) {
        bytes += static_cast<char>((i * 7) & 0xFF);
    }
    return bytes;
}

/** The dump of 256 bytes of the log, or of fewer at its end. */
std::string logDump(const std::string& title, size_t position, size_t length) {
    std::string text = STAMP + title + "\n" STAMP "empEventLogFilePrint(): Print [";
    text += std::to_string(length) + "] bytes at Position [" +
            std::to_string(static_cast<int>(position)) + "].\n";
    std::string piece(100, '\0');
    for (; length > 100; position += 100, length -= 100) {
        piece = logBytes(position, 100);
        text += hexPieces(piece, 100);
    }
    piece.replace(0, length, logBytes(position, length));
    return text + hexPieces(piece, 30) + STAMP "\n";
}

std::string bufferDump(char value) {
    std::string digits = value == 'A' ? "41414141" : "57575757";
    std::string text;
    for (int line = 1; line <= 8; line++) {
        for (int group = 1; group <= 8; group++) {
            text += digits;
            text += group < 8 ? " " : line % 2 == 0 ? "\n\n" : "\n";
        }
    }
    return text + "\n";
}

std::string label(const std::string& name) {
    std::string text = STAMP + name;
    text.append(56 - name.size(), ' ');
    return text;
}

std::string indexDump() {
    std::string text = label("eventEntryDatabase") + "= 0X\n[0]\n";
    for (int i = 0; i < 10000; i++) {
        text += STAMP;
        text += i == 0 ? "01000000 " : i == 1 ? "011869A0 " : i == 9999 ? "00ABCDEF " : "00000000 ";
        if ((i + 1) % 128 == 0) {
            text.append("\n[").append(std::to_string(i + 1)).append("]\n");
        } else if ((i + 1) % 16 == 0) {
            text += "\n";
        }
    }
    return text + "\n" STAMP "\nFinish the Event Manager internal data dump.\n";
}

std::string box(const std::string& function, int line, const std::string& message) {
    return STAMP "********************** Critical Error *********************\n"
                 "| File:      empmain\n"
                 "| Function:  " +
           function + "\n| Line:      " + std::to_string(line) + "\n| Message:   " + message +
           "\n***********************************************************\n";
}

class BugCheck : public testing::Test {
  protected:
    void SetUp() override {
        void* memory = mmap(nullptr, sizeof(Written_t), PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(memory, MAP_FAILED);
        written = static_cast<Written_t*>(memory);
        oMpuParams = &parameters;
        fillControlBlock();
        empControl.empDebug = 0;
        memset(empControl.empInMsg, 'A', 256);
        memset(empControl.empInMsg + 256, 'x', 64);
        memset(eventEntryWorkSpace, 'W', 256);
        memset(eventEntryWorkSpace + 256, 'x', 64);
        eventEntryDatabase[0] = {1, 0U};
        eventEntryDatabase[1] = {1, 1'600'000U - 96};
        eventEntryDatabase[9999] = {0, 0xABCDEFU};
        openLog();
    }
    static void openLog() {
        FILE* file = tmpfile();
        std::string bytes = logBytes(0, 1'600'000);
        fwrite(bytes.data(), 1, bytes.size(), file);
        fflush(file);
        ASSERT_EQ(dup2(fileno(file), LOG_DESCRIPTOR), LOG_DESCRIPTOR);
        fclose(file);
    }
    static void seekLog(off_t position) { empLogFilePosition = position; }

    static ChildEnd bugCheck() {
        return endOf([] {
            EmpSite_t site = {6740, "empRcvEventInquiryMsg"};
            EMP_BUGCHECK(site, "Linux send function fails, sendSize = [%d] is wrong", -1);
        });
    }
    static std::string reportBox() {
        return box("empRcvEventInquiryMsg", 6740,
                   "Linux send function fails, sendSize = [-1] is wrong");
    }
    static const U8_t* image(int record) { return written->records[record].image; }
};

TEST_F(BugCheck, PrintsTheWholeReport) {
    seekLog(400);
    ChildEnd result = bugCheck();
    EXPECT_EQ(result.signal, SIGABRT);
    std::string report =
        reportBox() + stamped(CONTROL_LINES) +
        logDump("Dump [256] bytes of Event Log File at current file position [400].", 400, 256) +
        logDump("Dump [256] bytes of Event Log File at file position [144].", 144, 256) +
        logDump("Dump [100] bytes of Event Log File at empControl.empWrite [1599900].", 1'599'900,
                100) +
        logDump("Dump [0] bytes of Event Log File at empControl.empStart [-1596296].",
                4'293'371'000U, 0) +
        label("empControl.empInMsg") + "= 0X\n" + bufferDump('A') + label("eventEntryWorkSpace") +
        "= 0X\n" + bufferDump('W') + indexDump();
    EXPECT_TRUE(result.output == report) << result.output.substr(0, 12000);
}

TEST_F(BugCheck, FirstAndLastLineOfTheBoxAreEquallyLong) {
    std::string out = bugCheck().output;
    EXPECT_EQ(out.find('\n'), strlen(STAMP) + 59);
    EXPECT_NE(out.find(std::string("\n").append(59, '*').append("\n")), std::string::npos);
}

TEST_F(BugCheck, NearTheStartTheSecondDumpBeginsAtZero) {
    seekLog(100);
    std::string out = bugCheck().output;
    EXPECT_NE(out.find(logDump("Dump [256] bytes of Event Log File at current file position [100].",
                               100, 256) +
                       logDump("Dump [256] bytes of Event Log File at file position [0].", 0, 256)),
              std::string::npos);
}

TEST_F(BugCheck, NearTheEndTheFirstDumpIsCut) {
    seekLog(1'599'900);
    std::string out = bugCheck().output;
    EXPECT_NE(
        out.find(logDump("Dump [100] bytes of Event Log File at current file position [1599900].",
                         1'599'900, 100) +
                 logDump("Dump [256] bytes of Event Log File at file position [1599644].",
                         1'599'644, 256)),
        std::string::npos);
}

TEST_F(BugCheck, BehindTheEndNothingIsRead) {
    seekLog(1'700'000);
    std::string out = bugCheck().output;
    EXPECT_NE(out.find(STAMP "Dump [0] bytes of Event Log File at current file position "
                             "[1700000].\n" STAMP
                             "empEventLogFilePrint(): Print [0] bytes at Position [1700000].\n"),
              std::string::npos);
    EXPECT_EQ(written->count, 24);
}

TEST_F(BugCheck, WithoutSeekableLogTheReportGoesOn) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    empControl.eventLogFileFd = ends[0];
    ChildEnd result = bugCheck();
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_NE(result.output.find(
                  STAMP
                  "Dump [256] bytes of Event Log File at current file position [-1].\n" STAMP
                  "empEventLogFilePrint(): Print [256] bytes at Position [-1].\n" STAMP
                  "empEventLogFilePrint(): Linux lseek function fails for Event Log File!" STAMP
                  "Dump [256] bytes of Event Log File at file position [0].\n"),
              std::string::npos);
    EXPECT_NE(result.output.find("Finish the Event Manager internal data dump.\n"),
              std::string::npos);
    EXPECT_EQ(written->count, 24);
}

TEST_F(BugCheck, BeforeTheLogIsOpenStandardInputIsOnlySought) {
    empControl.eventLogFileFd = 0;
    int ends[2];
    ASSERT_EQ(pipe(ends), 0); // both ends stay open: a read would wait for ever
    dup2(ends[0], STDIN_FILENO);
    ChildEnd result = bugCheck();
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_EQ(written->count, 24);
}

TEST_F(BugCheck, BeforeTheLogIsOpenTheReportShowsStandardInputWhereItStands) {
    empControl.eventLogFileFd = 0;
    ASSERT_EQ(dup2(LOG_DESCRIPTOR, STDIN_FILENO), STDIN_FILENO);
    ASSERT_EQ(lseek(STDIN_FILENO, 300, SEEK_SET), 300);
    std::string out = bugCheck().output;
    EXPECT_NE(out.find(logDump("Dump [256] bytes of Event Log File at current file position [300].",
                               300, 256)),
              std::string::npos);
}

TEST_F(BugCheck, StoresTwentyFourEventsInOrder) {
    EXPECT_EQ(bugCheck().signal, SIGABRT);
    ASSERT_EQ(written->count, 24);
    for (int i = 0; i < 24; i++) {
        int length = i == 0 ? 196 : i == 1 ? 460 : i < 4 ? 256 : 2000;
        std::string header = "Enclosure-7";
        header.resize(64);
        header += std::string(64, 'B');
        const U8_t rest[24] = {0,
                               0,
                               0,
                               12,
                               0,
                               0,
                               0,
                               5,
                               0,
                               0,
                               0,
                               0,
                               0,
                               0,
                               0,
                               0,
                               static_cast<U8_t>(length >> 8),
                               static_cast<U8_t>(length),
                               27,
                               3,
                               2,
                               1,
                               0,
                               static_cast<U8_t>(11 + i)};
        header.append(reinterpret_cast<const char*>(rest), sizeof(rest));
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(image(i)), 152), header) << i;
        EXPECT_TRUE(written->records[i].withParameters) << i;
    }
}

TEST_F(BugCheck, FirstEventCarriesTheError) {
    bugCheck();
    std::string body = "empmain";
    body.resize(64);
    body += "empRcvEventInquiryMsg";
    body.resize(128);
    body += std::string("\0\0\x1A\x54", 4);
    body += "Linux send function fails, sendSize = [-1] is wrong";
    body.resize(196);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(image(0) + 152), 196), body);
}

TEST_F(BugCheck, SecondEventIsTheControlBlock) {
    bugCheck();
    for (size_t i = 0; i < sizeof(CONTROL_IMAGE); i++) {
        EXPECT_EQ(image(1)[152 + i], CONTROL_IMAGE[i]) << "offset " << i;
    }
}

TEST_F(BugCheck, FurtherEventsCarryTheBuffersAndTheIndex) {
    bugCheck();
    auto body = [](int record, size_t length) {
        return std::string(reinterpret_cast<const char*>(image(record) + 152), length);
    };
    EXPECT_EQ(body(2, 256), std::string(256, 'A'));
    EXPECT_EQ(body(3, 256), std::string(256, 'W'));
    std::string first = std::string("\x01\x00\x00\x00\x01\x18\x69\xA0", 8);
    first.resize(2000);
    EXPECT_EQ(body(4, 2000), first);
    for (int i = 5; i < 23; i++) {
        EXPECT_EQ(body(i, 2000), std::string(2000, '\0')) << i;
    }
    std::string last(1996, '\0');
    last += std::string("\x00\xAB\xCD\xEF", 4);
    EXPECT_EQ(body(23, 2000), last);
}

TEST_F(BugCheck, LongMessageIsPrintedWholeAndStoredCut) {
    std::string text(300, 'm');
    ChildEnd result = endOf([&] { EMP_BUGCHECK(EMP_HERE_IN("f"), "%sEND", text.c_str()); });
    EXPECT_NE(result.output.find("| Message:   " + text + "END\n"), std::string::npos);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(image(0) + 152 + 132), 64),
              std::string(64, 'm'));
}

TEST_F(BugCheck, MessageOf1024BytesIsCut) {
    std::string text(5000, 'm');
    ChildEnd result = endOf([&] { EMP_BUGCHECK(EMP_HERE_IN("f"), "%s", text.c_str()); });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_NE(result.output.find(std::string("| Message:   ").append(1023, 'm') + "\n***"),
              std::string::npos);
    EXPECT_EQ(written->count, 24);
}

TEST_F(BugCheck, LongNamesAreStoredWithTheirTerminator) {
    std::string name(70, 'n');
    endOf([&] { empFault(name.c_str(), -1, name.c_str(), "text"); });
    const U8_t* body = image(0) + 152;
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(body), 64), std::string(63, 'n') + '\0');
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(body + 64), 64),
              std::string(63, 'n') + '\0');
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(body + 128), 4), "\xFF\xFF\xFF\xFF");
}

TEST_F(BugCheck, ErrorInsideTheBugCheckEndsItAtOnce) {
    writerBehaviour = BUG_CHECK_AGAIN;
    ChildEnd result = bugCheck();
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_EQ(written->count, 1);
    EXPECT_EQ(result.output.find("Critical Error"), result.output.rfind("Critical Error"));
    EXPECT_EQ(result.output.find("second"), std::string::npos);
}

TEST_F(BugCheck, ReportIsOutBeforeTheWriterIsCalled) {
    writerBehaviour = ABORT;
    ChildEnd result = bugCheck();
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_EQ(written->count, 1);
    EXPECT_EQ(result.output.substr(result.output.size() - 45),
              "Finish the Event Manager internal data dump.\n");
}

TEST_F(BugCheck, LinesPrintedBeforeAreNotLost) {
    ChildEnd result = endOf([] {
        printf("a line of before\n");
        EMP_BUGCHECK(EMP_HERE_IN("f"), "text");
    });
    EXPECT_EQ(result.output.rfind("a line of before\n" STAMP "**", 0), 0U);
}

} // namespace
