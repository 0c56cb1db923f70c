/** The tour of README.md: every command in it prints what stands below it. */
#include "../../unit/evlog/log_image.h"

#include "process.h"
#include "program.h"
#include "temp_directory.h"

#include <gmock/gmock.h>

#include <sstream>
#include <sys/stat.h>

namespace {

constexpr uint32_t MORNING = 1'795'161'600; // 2026-11-20T08:00:00Z
constexpr uint8_t INFORMATION = 1;
constexpr uint8_t WARNING = 2;
constexpr uint8_t ERROR = 3;

/** The log of a blade, with what is the same in all its events. */
class BladeLog {
  public:
    BladeLog(std::string blade, uint32_t slot) : blade_(std::move(blade)), slot_(slot) {
        add(0, 27, INFORMATION, 2, 2, std::string("CHASSIS-7") + std::string(31, '\0'));
    }

    void add(uint32_t minutes, uint8_t source, uint8_t type, uint8_t category, uint16_t eventId,
             const std::string& data) {
        log_.raw(test::record({.enclosure = "CHASSIS-7",
                               .blade = blade_,
                               .slot = slot_,
                               .instance = 0,
                               .id = nextId_++,
                               .time = MORNING + 60 * minutes + 7 * nextId_,
                               .source = source,
                               .type = type,
                               .category = category,
                               .eventId = eventId},
                              data));
    }

    std::string bytes() {
        log_.dummy();
        log_.zerosTo();
        return log_.bytes;
    }

  private:
    test::LogImage log_;
    std::string blade_;
    uint32_t slot_;
    uint32_t nextId_ = 0;
};

std::string volume(uint32_t number, bool online) {
    return test::bigEndian(number, 4) + test::bigEndian(online ? 0x80000000 : 0, 4);
}

std::string bugCheck(const std::string& function, uint32_t line, const std::string& message) {
    return test::text64("empmain") + test::text64(function) + test::bigEndian(line, 4) +
           test::text64(message);
}

std::string firstBlade() {
    BladeLog log("BLADE-0001", 0);
    log.add(1, 18, INFORMATION, 1, 300, "all processes are up");
    log.add(2, 20, INFORMATION, 5, 40, volume(7, true));
    log.add(61, 26, WARNING, 3, 7, "fan 2: 1180 rpm, below 1500");
    log.add(95, 6, ERROR, 11, 9, "drive 4: medium error at block 81920");
    log.add(95, 20, WARNING, 5, 40, volume(7, false));
    log.add(96, 27, ERROR, 1, 11,
            bugCheck("empReadEventEntry", 412, "Linux read function fails for Event Log File!"));
    log.add(98, 18, INFORMATION, 1, 300, "all processes are up");
    log.add(140, 21, INFORMATION, 4, 12, "drive 4 was replaced");
    log.add(141, 20, INFORMATION, 5, 40, volume(7, true));
    return log.bytes();
}

std::string secondBlade() {
    BladeLog log("BLADE-0002", 1);
    log.add(1, 18, INFORMATION, 1, 300, "all processes are up");
    log.add(62, 26, WARNING, 3, 7, "fan 2: 1175 rpm, below 1500");
    log.add(96, 6, WARNING, 11, 9, "path to drive 4 lost, 1 left");
    log.add(141, 6, INFORMATION, 11, 9, "path to drive 4 is back");
    return log.bytes();
}

struct Step {
    std::string command;
    std::string output; ///< both of its outputs
};

/** The commands in the section's blocks, each behind "$ ", and what stands below them. */
std::vector<Step> tourOf(const std::string& readme) {
    std::vector<Step> steps;
    size_t begin = readme.find("\n## A tour\n");
    std::istringstream section(readme.substr(begin, readme.find("\n## ", begin + 1) - begin));
    bool inBlock = false;
    for (std::string line; std::getline(section, line);) {
        if (line.starts_with("```")) {
            inBlock = !inBlock;
        } else if (inBlock && line.starts_with("$ ")) {
            steps.push_back({line.substr(2), ""});
        } else if (inBlock && !steps.empty()) {
            steps.back().output += line + "\n";
        }
    }
    return steps;
}

class Tour : public testing::Test {
  protected:
    Tour() {
        std::string bin = directory_.makeDirectory("bin");
        std::string wrapper = "#!/bin/sh\nexec";
        for (const std::string& word : support::commandOf("evctl", {})) {
            wrapper += " '" + word + "'";
        }
        support::writeFile(bin + "/evctl", wrapper + " \"$@\"\n");
        chmod((bin + "/evctl").c_str(), 0700);
        directory_.makeDirectory("slot0");
        directory_.makeDirectory("slot1");
        support::writeFile(directory_.file("slot0/kelta_eventlog"), firstBlade());
        support::writeFile(directory_.file("slot1/kelta_eventlog"), secondBlade());
    }

    std::string run(const std::string& command) {
        support::Process shell(
            {"sh", "-c",
             "cd '" + directory_.path() + "' && PATH=\"$PWD/bin:$PATH\" && { " + command +
                 "\n} 2>&1"},
            directory_.file("sh"),
            {{"EVENT_MANAGER_CATALOG", support::sourceFile("share/event-manager/catalog.d") + ":" +
                                           support::sourceFile("demo/catalog.d")},
             {"TZ", "CET-1"}});
        shell.wait();
        return shell.output();
    }

    support::TempDirectory directory_;
};

} // namespace

TEST_F(Tour, EveryCommandPrintsWhatTheReadmeShows) {
    std::vector<Step> steps = tourOf(support::readFile(support::sourceFile("README.md")));
    EXPECT_GE(steps.size(), 6U);
    for (const Step& step : steps) {
        EXPECT_EQ(run(step.command), step.output) << step.command;
    }
}
