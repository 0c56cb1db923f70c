// The event manager and the clock: behind 2038, with files of any date.
#include "ael_file.h"
#include "blade.h"

#include <cstdlib>
#include <filesystem>
#include <gmock/gmock.h>

using namespace support;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

namespace {

constexpr U32_t NEW_YEAR_2040 = 2208988800;

/** The command with its wall clock moved: preloaded into what runs an emulated program, the library
 * reaches that program's system calls. */
std::vector<std::string> atNewYear2040(const std::vector<std::string>& command) {
    std::vector<std::string> words = {"env",
                                      "LD_PRELOAD=" FAKETIME_LIBRARY,
                                      "FAKETIME=@2040-01-01 00:00:00",
                                      "FAKETIME_DONT_FAKE_MONOTONIC=1",
                                      "NO_FAKE_STAT=1",
                                      "TZ=UTC0",
                                      "ASAN_OPTIONS=verify_asan_link_order=0",
                                      "QEMU_UNSET_ENV=LD_PRELOAD"};
    words.insert(words.end(), command.begin(), command.end());
    return words;
}

/** Leaves an alternate event with this id in a file of this date, in seconds. */
void leaveEvent(const Blade& blade, uint16_t id, const std::string& seconds) {
    std::string path = blade.file("n/aelfiles/kelta_alteventlog1." + std::to_string(id));
    AelFile_t file;
    file.id = id;
    writeFile(path, file.bytes());
    std::string command = "touch -d @" + seconds + " " + path;
    ASSERT_EQ(std::system(command.c_str()), 0);
}

} // namespace

TEST(Clock, EventsAndLinesAreRightAfter2038) {
    Blade blade;
    RunningEmp emp(blade, atNewYear2040(blade.command()));
    emp.startQuietly();
    emp.msm.send(eventMessage(18, Bytes(4)));
    Bytes copy = emp.msm.receive();
    EXPECT_GE(number32(copy, 204), NEW_YEAR_2040);
    EXPECT_LT(number32(copy, 204), NEW_YEAR_2040 + 600);
    std::string line = emp.process.waitForOutput("Tag Event with");
    EXPECT_THAT(line, MatchesRegex("Jan  1 00:0[0-9]:[0-9][0-9]  .*"));
    // The first entry of the fresh log.
    EXPECT_GE(number32(blade.logged(148, 4), 0), NEW_YEAR_2040);
}

TEST(Clock, FilesOfAnyDateAreReplayedInTheOrderOfTheirTimes) {
    Blade blade;
    std::filesystem::create_directory(blade.file("n/aelfiles"));
    leaveEvent(blade, 1, "5000000000"); // 2128
    leaveEvent(blade, 2, "2208988800"); // 2040
    leaveEvent(blade, 3, "800000000");  // 1995
    RunningEmp emp(blade);
    emp.startQuietly();
    for (uint8_t id : {uint8_t{3}, uint8_t{2}, uint8_t{1}}) {
        Bytes copy = emp.msm.receive();
        EXPECT_EQ(copy[215], id);
        EXPECT_EQ(number32(copy, 204), 1000U) << "the time at which it was written";
    }
    EXPECT_THAT(emp.process.output(), Not(HasSubstr("0 byte File")));
    EXPECT_EQ(blade.alternateFiles(), 0U);
}
