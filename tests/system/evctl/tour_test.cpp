/**
 * The tour of README.md: every command in it prints what stands below it, and its pictures are
 * those that the commands draw. After a change that is meant, TOUR_WRITE=1 writes them anew.
 */
#include "../../unit/evlog/log_image.h"

#include "process.h"
#include "program.h"
#include "temp_directory.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <random>
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

/** One that there can be: the operators' page knows this function to say this. */
std::string bugCheck(const std::string& function, uint32_t line, const std::string& message) {
    const std::string page = support::readFile(support::sourceFile("docs/operations.md"));
    const size_t row = page.find("\n| `" + message + "` |") + 1;
    EXPECT_THAT(page.substr(row, page.find('\n', row) - row),
                testing::HasSubstr("`" + function + "`"));
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
    log.add(
        96, 27, ERROR, 2, 11,
        bugCheck("empRcvEventInquiryMsg", 6642, "Linux read function fails for Event Log File!"));
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

/** Two days of a blade that has much to say: its log has gone round its end, and two sectors of its
 * storage have gone bad. */
std::string busyBlade() {
    std::minstd_rand random(7);
    std::string laps[2];
    uint32_t time = MORNING - 48 * 3600;
    uint32_t id = 0;
    for (std::string& lap : laps) {
        size_t end = &lap == laps ? test::RING : test::RING / 4;
        while (true) {
            time += 5 + static_cast<uint32_t>(random() % 30);
            bool isBurst = time > MORNING - 20 * 3600 && time < MORNING - 18 * 3600;
            bool isNoted = random() % 400 == 0;
            test::RecordFields fields = {.enclosure = "CHASSIS-7",
                                         .blade = "BLADE-0003",
                                         .slot = 2,
                                         .instance = 0,
                                         .id = id++,
                                         .time = time,
                                         .source = 18,
                                         .type = INFORMATION,
                                         .category = 1,
                                         .eventId = 300};
            std::string text = "process " + std::to_string(random() % 20) + " is alive";
            if (isBurst && random() % 3 == 0) {
                fields.source = 6;
                fields.type = ERROR;
                fields.category = 11;
                fields.eventId = 9;
                text = "drive 4: medium error at block " + std::to_string(random() % 1'000'000);
            } else if (isNoted || random() % 20 == 0) {
                fields.source = 26;
                fields.type = isNoted ? WARNING : INFORMATION;
                fields.category = 3;
                fields.eventId = 7;
                text = "fan 2: " + std::to_string(1300 + random() % 700) + " rpm";
            }
            std::string event = test::record(fields, text);
            if (lap.size() + event.size() > end) {
                break;
            }
            lap += event;
        }
    }
    std::string bytes = laps[1] + laps[0].substr(laps[1].size());
    bytes.resize(test::RING, '\0');
    bytes.replace(700'000, 512, std::string(512, '\xFF'));
    bytes.replace(1'210'880, 512, std::string(512, '\xFF'));
    return bytes;
}

struct Step {
    std::string command;
    std::string output; ///< both of its outputs
};

/** The section: commands in its blocks, each behind "$ ", and what stands below them. */
class Page {
  public:
    explicit Page(const std::string& text) {
        size_t begin = text.find("\n## A tour\n") + 1;
        size_t end = text.find("\n## ", begin) + 1;
        before_ = text.substr(0, begin);
        behind_ = text.substr(end);
        std::istringstream section(text.substr(begin, end - begin));
        bool inBlock = false;
        for (std::string line; std::getline(section, line);) {
            if (line.starts_with("```")) {
                inBlock = !inBlock;
            }
            if (inBlock && line.starts_with("$ ")) {
                steps_.push_back({line.substr(2), ""});
            } else if (inBlock && !steps_.empty() && !line.starts_with("```")) {
                steps_.back().output += line + "\n";
            } else {
                between_.resize(steps_.size() + 1);
                between_.back() += line + "\n";
            }
        }
        between_.resize(steps_.size() + 1);
    }

    const std::vector<Step>& steps() const { return steps_; }

    /** The page with other outputs. */
    std::string with(const std::vector<std::string>& outputs) const {
        std::string text = before_ + between_[0];
        for (size_t at = 0; at < steps_.size(); at++) {
            text += "$ " + steps_[at].command + "\n" + outputs[at] + between_[at + 1];
        }
        return text + behind_;
    }

  private:
    std::string before_;
    std::string behind_;
    std::vector<Step> steps_;
    std::vector<std::string> between_; ///< what stands before the first step, and behind each
};

const std::vector<std::string> PICTURES = {"ring.svg", "stats.svg"};

std::string pictureOfThePage(const std::string& name) {
    return support::sourceFile("docs/tour/" + name);
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
        directory_.makeDirectory("slot2");
        support::writeFile(directory_.file("slot2/kelta_eventlog"), busyBlade());
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

TEST_F(Tour, EveryCommandPrintsAndDrawsWhatTheReadmeShows) {
    const std::string readme = support::sourceFile("README.md");
    Page page(support::readFile(readme));
    EXPECT_GE(page.steps().size(), 6U);
    std::vector<std::string> outputs;
    for (const Step& step : page.steps()) {
        outputs.push_back(run(step.command));
    }
    if (getenv("TOUR_WRITE") != nullptr) {
        support::writeFile(readme, page.with(outputs));
        for (const std::string& name : PICTURES) {
            support::writeFile(pictureOfThePage(name), support::readFile(directory_.file(name)));
        }
        FAIL() << "written anew; look through the changes, and run it again without TOUR_WRITE";
    }
    for (size_t at = 0; at < outputs.size(); at++) {
        EXPECT_EQ(outputs[at], page.steps()[at].output) << page.steps()[at].command;
    }
    for (const std::string& name : PICTURES) {
        EXPECT_EQ(support::readFile(directory_.file(name)),
                  support::readFile(pictureOfThePage(name)))
            << name;
        EXPECT_THAT(support::readFile(readme), testing::HasSubstr("](docs/tour/" + name + ")"));
    }
}
