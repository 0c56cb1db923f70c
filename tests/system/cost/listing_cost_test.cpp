// What it costs to list a log.
#include "../../unit/evlog/log_image.h"

#include "process.h"
#include "program.h"
#include "temp_directory.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace support;

namespace {

// The most that an event may take to be read, checked and printed with its text of 100 letters:
// what it takes today, with room for another release of the compiler. Lower it when it has fallen.
constexpr double INSTRUCTIONS_OF_A_LISTED_EVENT = 7'000;
// In any other form; a whole log of 1.6 MB is then listed in less than 50 ms.
constexpr double INSTRUCTIONS_OF_AN_EVENT_IN_ANY_FORM = 30'000;
// A hundred logs are merged: an event waits among a hundred.
constexpr double INSTRUCTIONS_OF_A_MERGED_EVENT = 8'000;

class CostOfListings : public testing::Test {
  protected:
    /** A log of that many events. @return its path */
    std::string put(const std::string& name, uint32_t events, uint32_t slot = 2) {
        test::LogImage log;
        for (uint32_t id = 0; id < events; id++) {
            log.raw(test::record({.slot = slot, .id = id, .time = 1'164'117'600 + id, .source = 20},
                                 "drive 4: something has happened at block " + std::to_string(id) +
                                     std::string(50, '.')));
        }
        log.dummy();
        log.zerosTo();
        writeFile(directory_.file(name), log.bytes);
        return directory_.file(name);
    }

    double instructionsOf(const std::vector<std::string>& arguments) {
        std::string report = directory_.file("counted");
        std::vector<std::string> words = {VALGRIND,
                                          "--tool=callgrind",
                                          "--log-file=" + report,
                                          "--callgrind-out-file=/dev/null",
                                          program("evctl"),
                                          "file",
                                          "list"};
        words.insert(words.end(), arguments.begin(), arguments.end());
        Process evctl(words, directory_.file("evctl"),
                      {{"EVENT_MANAGER_CATALOG", directory_.path()}});
        EXPECT_EQ(evctl.wait(), exitedWith(0)) << evctl.errorOutput();
        std::string line = waitForLine(report, "Collected :");
        return std::stod(line.substr(line.find(':') + 1));
    }

    TempDirectory directory_;
};

} // namespace

TEST_F(CostOfListings, InstructionsOfAnEvent) {
    if (!std::string(COUNTER_REASON).empty()) {
        GTEST_SKIP() << COUNTER_REASON;
    }
    constexpr uint32_t MANY = 5500; // 1.4 of 1.6 MB
    double each =
        (instructionsOf({put("many", MANY)}) - instructionsOf({put("few", 1)})) / (MANY - 1);
    std::cout << std::lround(each) << " instructions an event\n";
    EXPECT_LE(each, INSTRUCTIONS_OF_A_LISTED_EVENT);
    EXPECT_GT(each, 1000) << "not counted";
}

TEST_F(CostOfListings, InstructionsOfAnEventInTheDearForms) {
    if (!std::string(COUNTER_REASON).empty()) {
        GTEST_SKIP() << COUNTER_REASON;
    }
    constexpr uint32_t SOME = 1000;
    const std::string some = put("some", SOME);
    const std::string few = put("few", 1);
    for (const char* form : {"json", "hex", "full", "csv"}) {
        double each =
            (instructionsOf({some, "-o", form}) - instructionsOf({few, "-o", form})) / (SOME - 1);
        std::cout << std::lround(each) << " instructions an event, " << form << "\n";
        EXPECT_LE(each, INSTRUCTIONS_OF_AN_EVENT_IN_ANY_FORM) << form;
        EXPECT_GT(each, 1000) << "not counted";
    }
}

TEST_F(CostOfListings, InstructionsOfAnEventAmongAHundredLogs) {
    if (!std::string(COUNTER_REASON).empty()) {
        GTEST_SKIP() << COUNTER_REASON;
    }
    constexpr uint32_t EACH = 100;
    std::vector<std::string> many;
    std::vector<std::string> empty;
    for (uint32_t slot = 0; slot < 100; slot++) {
        many.push_back(put("many" + std::to_string(slot), EACH, slot));
        empty.push_back(put("few" + std::to_string(slot), 1, slot));
    }
    double each = (instructionsOf(many) - instructionsOf(empty)) / (100 * (EACH - 1));
    std::cout << std::lround(each) << " instructions an event\n";
    EXPECT_LE(each, INSTRUCTIONS_OF_A_MERGED_EVENT);
    EXPECT_GT(each, 1000) << "not counted";
}
