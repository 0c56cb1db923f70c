// A bug-check with the real writer behind it, and the start that takes its events into the log.

#include "fault/bugcheck.h"

#include "dying_child.h"
#include "emp_fixture.h"
#include "fixed_time_stamp.h"
#include "startup/alternate_replay.h"
#include "store/scan.h"

#include <algorithm>
#include <filesystem>

using namespace support;
namespace fs = std::filesystem;

namespace {

class BugCheckFiles : public EmpTest {
  protected:
    BugCheckFiles() {
        empControl.empInstanceNumber = 5;
        ChildEnd end =
            endOf([] { EMP_BUGCHECK(EMP_HERE_IN("main"), "Linux select function fails"); });
        EXPECT_EQ(end.signal, SIGABRT);
    }

    /** The files, in the order of their event ids. */
    std::vector<std::string> files() const {
        std::vector<std::string> contents;
        for (const auto& entry : fs::directory_iterator(directory_.file("aelfiles"))) {
            contents.insert(contents.end(), readFile(entry.path()));
        }
        std::sort(contents.begin(), contents.end(), [](const auto& left, const auto& right) {
            return left.substr(158, 2) < right.substr(158, 2);
        });
        return contents;
    }
};

TEST_F(BugCheckFiles, AreTwentyFour) {
    std::vector<std::string> all = files();
    ASSERT_EQ(all.size(), 24U);
    for (size_t i = 0; i < all.size(); i++) {
        size_t length = i == 0 ? 196 : i == 1 ? 460 : i < 4 ? 256 : 2000;
        EXPECT_EQ(all[i].size(), 160 + length);
        EXPECT_EQ(bytesAt(&all[i][140], 8), repeated(8, 0)) << "instance and sequence id";
        EXPECT_EQ(bytesAt(&all[i][152], 8),
                  (Bytes{static_cast<U8_t>(length >> 8), static_cast<U8_t>(length), 27, 3, 2, 1, 0,
                         static_cast<U8_t>(11 + i)}));
    }
    EXPECT_EQ(all[0].substr(160, 8), std::string("empmain\0", 8));
    EXPECT_EQ(all[0].substr(160 + 132, 28), std::string("Linux select function fails\0", 28));
}

TEST_F(BugCheckFiles, AreInTheLogAfterTheNextStart) {
    outputOf([] {
        empScanEventLogFile();
        empProcessAlternateEventLogFiles();
    });
    EXPECT_TRUE(fs::is_empty(directory_.file("aelfiles")));
    EXPECT_EQ(empControl.empSequenceId, 25U);
    EXPECT_EQ(empControl.empEventInLogFile, 25U);
    EXPECT_EQ(empControl.empWrite, 200U + 24 * 160 + 196 + 460 + 2 * 256 + 20 * 2000);
    EXPECT_EQ(empControl.mmsgEventAlternateEventLogMsgReceive, 24U);
}

} // namespace
