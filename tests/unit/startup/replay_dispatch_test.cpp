// Alternate events on their whole way: from the file through the real dispatcher into the log.
#include "ael_file.h"
#include "emp_fixture.h"
#include "fixed_time_stamp.h"
#include "startup/alternate_replay.h"
#include "startup/event_log_file.h"

#include <filesystem>
#include <gmock/gmock.h>

using namespace support;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr size_t BEHIND_FIRST_ENTRY = 200;

class ReplayDispatch : public EmpTest {
  protected:
    ReplayDispatch() {
        std::filesystem::create_directory(directory_.file("aelfiles"));
        outputOf(empProcessEventLogFile);
        fresh_ = log();
    }
    ~ReplayDispatch() override { close(empControl.eventLogFileFd); }

    std::string log() const { return readFile(directory_.file("kelta_eventlog")); }
    std::string filePath() const { return directory_.file("aelfiles/kelta_alteventlog1"); }
    std::string replay(const AelFile_t& file) const {
        writeFile(filePath(), file.bytes());
        return outputOf(empProcessAlternateEventLogFiles);
    }

    std::string fresh_; ///< the log before any replay
};

TEST_F(ReplayDispatch, EventTooLongForAMessageIsRemovedButNotStored) {
    // Their messages' lengths: 4065, and modulo 65,536 0, 63, 64 and 215.
    for (size_t length : {3849U, 65'320U, 65'383U, 65'384U, 65'535U}) {
        AelFile_t file;
        file.data.assign(length, 'd');
        std::string lines = replay(file);
        EXPECT_THAT(lines, HasSubstr("matches.\n")) << length;
        EXPECT_THAT(lines, HasSubstr("out of range\n")) << length;
        EXPECT_THAT(lines, Not(HasSubstr("Tag Event"))) << length;
        EXPECT_THAT(lines, testing::EndsWith(stamped(
                               "empProcessAlternateEventLogFile(): Finish and remove AEL File [" +
                               filePath() + "].\n")))
            << length;
        EXPECT_FALSE(std::filesystem::exists(filePath())) << length;
        EXPECT_EQ(log(), fresh_) << length;
        EXPECT_EQ(empControl.empSequenceId, 1U) << length;
        EXPECT_EQ(empControl.empEventAddToLogFile, 1U) << length;
        EXPECT_FALSE(msmHasData()) << length;
    }
}

TEST_F(ReplayDispatch, LongestEventIsStored) {
    AelFile_t file;
    file.data.assign(3848, 'd');
    EXPECT_THAT(replay(file), HasSubstr("Tag Event with new Sequence ID [1]\n"));
    EXPECT_EQ(log().substr(BEHIND_FIRST_ENTRY + 160, 3848), file.data);
    EXPECT_EQ(empControl.empSequenceId, 2U);
}

TEST_F(ReplayDispatch, StoredEventKeepsItsTimeSlotEnclosureAndBlade) {
    empControl.empInstanceNumber = 0x0A0B0C0D;
    AelFile_t file;
    file.sequenceId = 0x99887766; // not kept, nor is the instance number
    file.time = 0x12345678;
    EXPECT_THAT(replay(file), HasSubstr("Finish and remove AEL File"));
    std::string covered = paddedText("Other-Enclosure", 64) + paddedText("Other-Blade", 64) +
                          bigEndian(7, 4) + bigEndian(0x0A0B0C0D, 4) + bigEndian(1, 4) +
                          bigEndian(0x12345678, 4) +
                          std::string("\x00\x04\x14\x02\x04\x05\x01\x02", 8) + "data";
    EXPECT_EQ(log().substr(BEHIND_FIRST_ENTRY, 164), std::string("\xB6\x8F\x01\x00", 4) +
                                                         bigEndian(bitwiseChecksum(covered), 4) +
                                                         covered);
    EXPECT_FALSE(std::filesystem::exists(filePath()));
    Bytes copy = msm_.receive();
    EXPECT_EQ(std::string(copy.begin() + 64, copy.end()), covered) << "as in the log";
}

} // namespace
