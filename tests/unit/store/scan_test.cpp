/**
 * The search for records.
 */
#include "bug_check_texts.h"
#include "store_fixture.h"

#include <cstring>
#include <fcntl.h>

namespace {

using logimage::Bytes;
using logimage::Image;
using logimage::Record;

constexpr char FIND[] = "empFindValidEventEntry";

class FindTest : public StoreTest {
  protected:
    /** Searches @p image. @return the gap, or -1 when there is no record */
    int64_t find(const Image& image, uint32_t from = 0) {
        putImage(image);
        reopen();
        uint32_t gap = 0xDEADBEEF;
        EMP_CODE_e result = EMP_E_OK;
        output = outputOf([&] { result = empFindValidEventEntry(from, &gap); });
        if (result == EMP_E_OK) {
            return gap;
        }
        EXPECT_EQ(result, EMP_E_GENERR);
        EXPECT_EQ(gap, 0xDEADBEEF); // untouched
        return -1;
    }
    int64_t find(const Record& record) { return find(Image(encode(record))); }
    void reopen() {
        if (empControl.eventLogFileFd > 2) {
            close(empControl.eventLogFileFd);
        }
        empLogTake(open(logPath.c_str(), O_RDWR | O_CREAT, 0700));
    }
    static Bytes workSpace(size_t length) {
        return {eventEntryWorkSpace, eventEntryWorkSpace + length};
    }
    std::string output{};
};

TEST_F(FindTest, RecordAtTheStart) {
    EXPECT_EQ(find(Record::event(1, 40)), 0);
    EXPECT_EQ(output, "");
}

TEST_F(FindTest, RecordAtAnyByteBehindTheStart) {
    for (size_t garbage : {1, 2, 3, 77, 159, 160, 161, 5000}) {
        Image image;
        image.fill(garbage, 0xB6).event(1, 40);
        EXPECT_EQ(find(image), static_cast<int64_t>(garbage));
        EXPECT_EQ(find(image, 1), static_cast<int64_t>(garbage) - 1);
    }
}

TEST_F(FindTest, RecordFarBehindTheStart) {
    Image image;
    image.fill(1'599'000, 0x8F).event(1, 40);
    EXPECT_EQ(find(image), 1'599'000);
    EXPECT_EQ(find(image, 1'598'999), 1);
}

TEST_F(FindTest, DummyIsARecordAndItsBytesAreNotRead) {
    EXPECT_EQ(find(Record::dummy(65535)), 0);
    EXPECT_EQ(find(Record::dummy(1000)), 0); // nothing behind it
}

TEST_F(FindTest, BodyLimit) {
    EXPECT_EQ(find(Record::event(1, 3848)), 0);
    EXPECT_EQ(find(Record::event(1, 3849)), -1);
    EXPECT_EQ(find(Record::event(1, 65535)), -1);
}

TEST_F(FindTest, BodyLimitIsWaivedForSource27) {
    Record record = Record::event(1, 65535);
    record.source = 27;
    EXPECT_EQ(find(record), 0);
    EXPECT_EQ(workSpace(160), logimage::slice(encode(record), 0, 160));
}

TEST_F(FindTest, BodyLimitIsWaivedForId1OfAnySource) {
    Record record = Record::event(1, 3849);
    record.evId = 1;
    EXPECT_EQ(find(record), 0);
}

TEST_F(FindTest, VersionsZeroAndOneAreRead) {
    Record record = Record::event(1, 40);
    record.version = 0;
    EXPECT_EQ(find(record), 0);
    record.version = 2;
    EXPECT_EQ(find(record), -1);
}

TEST_F(FindTest, WrongSignatureIsNoRecord) {
    Record record = Record::event(1, 40);
    record.signature = 0x8FB6;
    EXPECT_EQ(find(record), -1);
}

TEST_F(FindTest, Source34IsTheLastOne) {
    Record record = Record::event(1, 40);
    record.source = 34;
    EXPECT_EQ(find(record), 0);
}

TEST_F(FindTest, BadEventSourceIsFatal) {
    Record record = Record::event(1, 40);
    record.source = 40;
    record.type = 2;
    putImage(encode(record));
    reopen();
    expectBugCheck(
        [] {
            uint32_t gap = 0;
            empFindValidEventEntry(0, &gap);
        },
        "Bad Event Source [40] in the Corrupted Event Log File! Please Delete the File.", FIND);
}

TEST_F(FindTest, BadEventSourceIsFatalWithoutAGoodChecksumAndWithVersionZero) {
    for (int source : {35, 255}) {
        Record record = Record::event(1, 40);
        record.source = static_cast<uint8_t>(source);
        record.type = 0;
        record.version = 0;
        Bytes bytes = encode(record);
        bytes[100] ^= 0xFF;
        putImage(Image().fill(33, 1).add(bytes));
        reopen();
        expectBugCheck(
            [] {
                uint32_t gap = 0;
                empFindValidEventEntry(0, &gap);
            },
            "Bad Event Source [" + std::to_string(source) +
                "] in the Corrupted Event Log File! Please Delete the File.",
            FIND);
    }
}

TEST_F(FindTest, BadEventSourceLeavesTheFileBehindItsHeader) {
    Record record = Record::event(1, 40);
    record.source = 40;
    record.type = 2;
    const struct {
        size_t garbage;
        uint32_t start;
        int position;
    } cases[] = {
        {0, 0, 160}, {1000, 0, 1160}, {1000, 700, 1160}, {1000, 1000, 1160}, {70'000, 0, 70'160}};
    for (const auto& test : cases) {
        putImage(Image().fill(test.garbage, 1).add(encode(record)));
        reopen();
        ChildEnd end = expectBugCheck(
            [&] {
                uint32_t gap = 0;
                empFindValidEventEntry(test.start, &gap);
            },
            "Bad Event Source [40] in the Corrupted Event Log File! Please Delete the File.", FIND);
        EXPECT_NE(end.output.find("of Event Log File at current file position [" +
                                  std::to_string(test.position) + "].\n"),
                  std::string::npos)
            << test.position;
    }
}

TEST_F(FindTest, BadEventSourceWithAnUnknownTypeOrVersionIsPassedOver) {
    Record record = Record::event(1, 40);
    record.source = 40;
    record.type = 4;
    EXPECT_EQ(find(record), -1);
    record.type = 3;
    record.version = 2;
    EXPECT_EQ(find(record), -1);
}

TEST_F(FindTest, MismatchShowsBothChecksums) {
    Record record = Record::event(1, 0);
    Bytes bytes = encode(record);
    uint32_t good = logimage::get32(bytes, 4);
    logimage::put32(bytes, 4, 0x00000ABC);
    Image image(bytes);
    image.event(2, 0);
    EXPECT_EQ(find(image), 160);
    char line[200];
    snprintf(line, sizeof(line),
             "empFindValidEventEntry(): Record CRCChecksum [0xABC] not match with calculated "
             "CRCChecksum [0x%X]\n",
             good);
    EXPECT_EQ(output, line);
}

TEST_F(FindTest, EndOfFileInAHeaderIsDumpedAndEndsTheSearch) {
    Image image;
    image.fill(161, 0xAB).fill(1, 0xCD);
    // The last header that fits begins at 2; at 3 only 159 bytes arrive.
    EXPECT_EQ(find(image), -1);
    std::string dump;
    for (int n = 1; n <= 159; n++) {
        dump += n == 159 ? "CD" : "AB";
        dump += n % 64 == 0 ? "\n\n" : n % 32 == 0 ? "\n" : n % 4 == 0 ? " " : "";
    }
    EXPECT_EQ(output, dump + "\n");
}

TEST_F(FindTest, EmptyFileDumpsNothing) {
    EXPECT_EQ(find(Image()), -1);
    EXPECT_EQ(output, "\n");
}

TEST_F(FindTest, BodyCutByTheEndIsDumpedAndEndsTheWholeSearch) {
    Image image;
    image.add(Record::event(1, 3000)).truncate(163);
    Bytes body = logimage::slice(image.bytes, 160, 3);
    EXPECT_EQ(find(image), -1);
    char dump[20];
    snprintf(dump, sizeof(dump), "%02X%02X%02X\n", body[0], body[1], body[2]);
    EXPECT_EQ(output, dump);
}

TEST_F(FindTest, SoundRecordBehindACutBodyIsNotFound) {
    Record torn = Record::event(1, 0);
    torn.length = 3000;
    Image image;
    image.add(torn).event(2, 40);
    EXPECT_EQ(find(image), -1);
}

TEST_F(FindTest, OffsetOfTheFilesEndIsStillLookedAt) {
    Image image;
    image.fill(1'600'000, 0x11).event(1, 0).fill(1000, 0x11);
    EXPECT_EQ(find(image), 1'600'000);
    EXPECT_EQ(find(image, 1'600'000), 0);
    Image later;
    later.fill(1'600'001, 0x11).event(1, 0).fill(1000, 0x11);
    EXPECT_EQ(find(later), -1);
    EXPECT_EQ(output,
              "empFindValidEventEntry(): Can't find valid Event Entry. tmpGap = [1600001]\n");
    EXPECT_EQ(find(later, 1'599'990), -1);
    EXPECT_EQ(output, "empFindValidEventEntry(): Can't find valid Event Entry. tmpGap = [11]\n");
}

TEST_F(FindTest, SignatureInTheLastByteIsSteppedOver) {
    Image image;
    image.fill(1'599'999, 0x11).fill(1, 0xB6).fill(1, 0x8F).fill(1000, 0x11);
    EXPECT_EQ(find(image), -1);
    EXPECT_EQ(output,
              "empFindValidEventEntry(): Can't find valid Event Entry. tmpGap = [1600001]\n");
}

TEST_F(FindTest, GiveUpAtTheEndBehindAMismatch) {
    Bytes bytes = encode(Record::event(1, 0));
    logimage::put32(bytes, 4, 0);
    Image image;
    image.fill(1'600'000, 0x11).add(bytes).fill(1000, 0x11);
    EXPECT_EQ(find(image, 1'600'000), -1);
    EXPECT_NE(output.find("not match with calculated CRCChecksum"), std::string::npos);
    EXPECT_NE(output.find("Can't find valid Event Entry. tmpGap = [1]\n"), std::string::npos);
}

TEST_F(FindTest, FilePositionIsRestored) {
    Image image;
    image.fill(50, 0).event(1, 40);
    putImage(image);
    reopen();
    for (uint32_t from : {0U, 60U}) {
        empLogFilePosition = 33;
        uint32_t gap = 0;
        outputOf([&] { empFindValidEventEntry(from, &gap); });
        EXPECT_EQ(position(), 33);
    }
}

TEST_F(FindTest, WorkSpaceHoldsTheRecordAndZerosBehindIt) {
    memset(eventEntryWorkSpace, 0xEE, 5000);
    Bytes record = encode(Record::event(1, 40));
    EXPECT_EQ(find(Image(record)), 0);
    record.resize(4064, 0);
    EXPECT_EQ(workSpace(4064), record);
}

TEST_F(FindTest, WorkSpaceKeepsTheBodyOfARecordThatFailed) {
    Record bad = Record::event(1, 400);
    Image image;
    image.add(bad).flip(300).add(Record::dummy(65535));
    EXPECT_EQ(find(image), 560);
    EXPECT_EQ(workSpace(160), logimage::slice(image.bytes, 560, 160));
    EXPECT_EQ(logimage::slice(workSpace(4064), 160, 400), logimage::slice(image.bytes, 160, 400));
    EXPECT_EQ(logimage::slice(workSpace(4064), 560, 3504), logimage::zeros(3504));
}

TEST_F(FindTest, WorkSpaceAfterAFailedSearchEndsInThePartialHeader) {
    Image image;
    for (uint32_t i = 0; i < 300; i++) {
        image.fill(1, static_cast<uint8_t>(i));
    }
    EXPECT_EQ(find(image), -1);
    // The header at 140 was whole; that at 141 brought 159 bytes.
    Bytes wanted = logimage::slice(image.bytes, 141, 159);
    wanted.push_back(image.bytes[299]);
    EXPECT_EQ(workSpace(160), wanted);
}

TEST_F(FindTest, ReadErrorIsAnEmptyDumpAndEndsTheSearch) {
    putImage(Image(encode(Record::event(1, 40))));
    reopen();
    hooks::state.reads.failAt = 1;
    hooks::state.reads.failOn = true;
    uint32_t gap = 5;
    std::string text = outputOf([&] { EXPECT_EQ(empFindValidEventEntry(0, &gap), EMP_E_GENERR); });
    EXPECT_EQ(text, "\n");
    EXPECT_EQ(gap, 5U);
}

TEST_F(FindTest, SeekToTheRecordReportsAsCall) {
    putImage(Image(encode(Record::event(1, 40))));
    reopen();
    expectBugCheck(
        [] {
            hooks::state.seeks.failAt = 1;
            uint32_t gap = 0;
            empFindValidEventEntry(0, &gap);
        },
        LSEEK_CALL_FAILS, FIND);
}

} // namespace
