#include "ids.h"
#include "sources/source.h"

#include "../evlog/log_image.h"
#include "ael_file.h"
#include "temp_directory.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <filesystem>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

using sources::Kind;
using sources::Merge;
using sources::openSources;
using sources::Source;
using sources::Sources;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

/** Newest 10 and 11, a gap, oldest 5 and 6. */
std::string wrappedLog() {
    test::LogImage log;
    log.events(10, 2);
    log.raw(std::string(77, 'g'));
    log.events(5, 2);
    log.dummy();
    log.zerosTo();
    return log.bytes;
}

class SourcesOf : public testing::Test {
  protected:
    std::string put(const std::string& name, const std::string& bytes) {
        support::writeFile(directory_.file(name), bytes);
        return directory_.file(name);
    }
    void putAlternate(const std::string& name, const std::string& bytes, time_t time) {
        struct timespec times[2] = {{time, 0}, {time, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, put(name, bytes).c_str(), times, 0), 0);
    }
    std::string refusal(const std::string& path) {
        try {
            openSources(path);
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "";
    }

    support::TempDirectory directory_;
};

} // namespace

TEST_F(SourcesOf, ALogAreItsEventsOldestFirstAsOftenAsWanted) {
    Sources found = openSources(put("kelta_eventlog", wrappedLog()));
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0]->origin().kind, Kind::LOG);
    EXPECT_EQ(found[0]->origin().name, directory_.file("kelta_eventlog"));
    EXPECT_THAT(found[0]->problems(), IsEmpty());
    EXPECT_EQ(idsOf(*found[0]), (Ids{5, 6, 10, 11}));
    found[0]->rewind();
    EXPECT_EQ(idsOf(*found[0]), (Ids{5, 6, 10, 11}));
}

TEST_F(SourcesOf, ALogMayBeReadInTheOrderOfTheFile) {
    Sources found = openSources(put("log", wrappedLog()), {.fileOrder = true});
    EXPECT_EQ(idsOf(*found.at(0)), (Ids{10, 11, 5, 6}));
}

TEST_F(SourcesOf, EventsKnowWhereTheyLie) {
    Sources found = openSources(put("log", wrappedLog()));
    std::optional<sources::Event> event = found.at(0)->next();
    ASSERT_TRUE(event);
    EXPECT_EQ(event->position, 477U);
    EXPECT_EQ(event->record->offset, 477U);
    EXPECT_EQ(event->origin, &found[0]->origin());
    EXPECT_EQ(event->view.data.size(), 40U);
}

TEST_F(SourcesOf, DamageIsAProblemAndTheRestIsRead) {
    std::string bytes = wrappedLog();
    bytes[800] = static_cast<char>(bytes[800] ^ 1);
    Sources found = openSources(put("kelta_eventlog.debug", bytes));
    EXPECT_EQ(found.at(0)->origin().kind, Kind::DAMAGED_COPY);
    EXPECT_EQ(idsOf(*found[0]), (Ids{5, 10, 11}));
    EXPECT_THAT(found[0]->problems(), ElementsAre(HasSubstr("offset 677, 200 bytes: ")));
}

TEST_F(SourcesOf, AnAlternateEventLogFileIsOneEvent) {
    std::string path = put("kelta_alteventlog7.a", AelFile_t{.sequenceId = 9}.bytes());
    Sources found = openSources(path);
    EXPECT_EQ(found.at(0)->origin().kind, Kind::ALTERNATE);
    EXPECT_EQ(idsOf(*found[0]), Ids{9});
    Sources damaged = openSources(put("kelta_alteventlog8.a", "short"));
    EXPECT_EQ(idsOf(*damaged.at(0)), Ids{});
    EXPECT_THAT(damaged[0]->problems(), ElementsAre("shorter than a record's header"));
}

TEST_F(SourcesOf, ADirectoryIsAllThatIsInIt) {
    put("kelta_eventlog", wrappedLog());
    put("kelta_eventlog.debug", wrappedLog());
    directory_.makeDirectory("aelfiles");
    putAlternate("aelfiles/kelta_alteventlog1.b", AelFile_t{.sequenceId = 2}.bytes(), 2000);
    putAlternate("aelfiles/kelta_alteventlog1.a", AelFile_t{.sequenceId = 3}.bytes(), 1000);
    putAlternate("aelfiles/kelta_alteventlog\x1B", "short", 500);
    put("aelfiles/notes", "of somebody");
    Sources found = openSources(directory_.path());
    ASSERT_EQ(found.size(), 3U);
    EXPECT_EQ(found[0]->origin().kind, Kind::DAMAGED_COPY);
    EXPECT_EQ(found[1]->origin().kind, Kind::LOG);
    EXPECT_EQ(idsOf(*found[1]), (Ids{5, 6, 10, 11}));
    EXPECT_EQ(found[2]->origin().kind, Kind::ALTERNATE);
    EXPECT_EQ(idsOf(*found[2]), (Ids{3, 2}));
    EXPECT_THAT(found[2]->problems(),
                ElementsAre("kelta_alteventlog\\x1B: shorter than a record's header"));
}

TEST_F(SourcesOf, WhatOfADirectoryCannotBeReadIsANoticeOfTheRest) {
    directory_.makeDirectory("kelta_eventlog");
    put("kelta_eventlog.debug", wrappedLog());
    put("aelfiles", "no directory");
    Sources found = openSources(directory_.path());
    ASSERT_EQ(found.size(), 1U);
    EXPECT_THAT(found[0]->notices(),
                ElementsAre(directory_.file("kelta_eventlog") + ": not a regular file",
                            directory_.file("aelfiles") + ": Not a directory"));
    std::filesystem::remove(directory_.file("kelta_eventlog.debug"));
    EXPECT_EQ(refusal(directory_.path()),
              directory_.file("kelta_eventlog") + ": not a regular file");
}

TEST_F(SourcesOf, APipeIsTheFileThatComes) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    std::string bytes = wrappedLog().substr(0, 877); // a pipe holds it
    ASSERT_EQ(write(ends[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    close(ends[1]);
    Sources found = openSources("/dev/fd/" + std::to_string(ends[0]));
    close(ends[0]);
    EXPECT_EQ(idsOf(*found.at(0)), (Ids{5, 6, 10, 11}));
    EXPECT_THAT(found[0]->problems(), ElementsAre(HasSubstr("file ends before 1600000 bytes")));
}

TEST_F(SourcesOf, WhatHoldsNoEventsIsRefusedByName) {
    EXPECT_THAT(refusal("/nowhere/log"), "/nowhere/log: No such file or directory");
    EXPECT_THAT(refusal(put("text", "hello")), HasSubstr("/text: no event log; it is text"));
    EXPECT_THAT(refusal(put("empty", "")), HasSubstr("/empty: no event log; it is empty"));
    EXPECT_THAT(refusal(directory_.makeDirectory("none")), HasSubstr("/none: a directory without"));
    EXPECT_THAT(refusal("/dev/null"), HasSubstr("/dev/null: no event log; it is empty"));
    EXPECT_THAT(refusal("/dev/zero"), HasSubstr("/dev/zero: more than 67108864 bytes"));
}

TEST_F(SourcesOf, AnythingThatIsNoArchiveButSaysSoIsRefused) {
    std::string fake("SQLite format 3\0rest", 20);
    EXPECT_NE(refusal(put("events.db", fake)), "");
    std::span<const U8_t> bytes(reinterpret_cast<const U8_t*>(fake.data()), fake.size());
    EXPECT_THROW(sources::openBytes("-", {bytes.begin(), bytes.end()}), std::runtime_error);
}

TEST(Merge, IsOneLineOfTimeInWhichEachSourceKeepsItsOrder) {
    auto source = [](uint32_t firstId, std::initializer_list<uint32_t> times) {
        std::string bytes;
        for (uint32_t time : times) {
            bytes += test::record({.id = firstId++, .time = time}, "x");
        }
        return sources::logSource({}, test::imageOf(bytes));
    };
    Sources several;
    several.push_back(source(10, {100, 300, 200, 400})); // its clock was put back
    several.push_back(source(20, {100, 250, 300}));
    several.push_back(source(30, {}));
    Merge merge(std::move(several));
    Ids ids;
    while (std::optional<sources::Event> event = merge.next()) {
        ids.push_back(event->view.header->evSequenceId);
    }
    EXPECT_EQ(ids, (Ids{10, 20, 21, 11, 12, 22, 13}));
}

namespace {

using Records = std::vector<test::RecordFields>;

/** Sequence ids of several logs in one line of time, each once; slots other than 2 in front. */
std::string merged(const std::vector<Records>& logs) {
    Sources several;
    for (const Records& records : logs) {
        std::string bytes;
        for (const test::RecordFields& record : records) {
            bytes += test::record(record, "x");
        }
        several.push_back(sources::logSource({}, test::imageOf(bytes)));
    }
    Merge merge(std::move(several));
    std::string text;
    while (std::optional<sources::Event> event = merge.next()) {
        const EmpEvLogHeader_t& header = *event->view.header;
        const std::string slot = header.evSlotId == 2 ? "" : std::to_string(header.evSlotId) + "/";
        text += event->isDouble ? "" : slot + std::to_string(header.evSequenceId) + " ";
    }
    return text;
}

} // namespace

TEST(Merge, OfOneLogASecondIsInTheOrderOfItsIdsWhicheverFileComesFirst) {
    const Records sound = {{.id = 1}, {.id = 2}, {.id = 3}, {.id = 4}, {.id = 5}, {.id = 6}};
    const Records damaged = {{.id = 1}, {.id = 2}, {.id = 5}};
    EXPECT_EQ(merged({damaged, sound}), "1 2 3 4 5 6 ");
    EXPECT_EQ(merged({sound, damaged}), "1 2 3 4 5 6 ");
}

TEST(Merge, OfOneSecondLogsStandOneBehindTheOtherAsTheyWereGiven) {
    const Records others = {{.slot = 3, .id = 4}, {.slot = 3, .id = 9}};
    EXPECT_EQ(merged({{{.id = 5}}, others, {{.id = 3}, {.id = 6}}}), "3 5 6 3/4 3/9 ");
    EXPECT_EQ(merged({others, {{.id = 5}}, {{.id = 3}, {.id = 6}}}), "3/4 3/9 3 5 6 ");
    EXPECT_EQ(merged({{{.id = 5}}, {{.id = 3}, {.id = 6}}, others}), "3 5 6 3/4 3/9 ");
}

TEST(Merge, ALogThatBeganAgainComesBehindWhatItHeldBefore) {
    const Records before = {{.instance = 7, .id = 5}, {.instance = 7, .id = 6}};
    const Records again = {{.instance = 8, .id = 0}, {.instance = 8, .id = 1}};
    EXPECT_EQ(merged({before, again}), "5 6 0 1 ");
    EXPECT_EQ(merged({again, before}), "5 6 0 1 ");
}

TEST(Merge, AClockThatWasPutBackLeavesEachFileItsOrder) {
    const Records sound = {{.id = 1, .time = 300}, {.id = 2, .time = 100}, {.id = 3, .time = 100}};
    const Records damaged = {{.id = 1, .time = 300}, {.id = 3, .time = 100}};
    EXPECT_EQ(merged({sound, damaged}), "1 2 3 ");
    EXPECT_EQ(merged({damaged, sound}), "1 3 2 "); // 3 is due before 2 is seen
}

TEST(Merge, IdsOfAlternateEventsAreNoPlaceInALog) {
    Sources several;
    std::string alternate = test::record({.id = 1}, "a");
    several.push_back(sources::logSource({}, test::imageOf(test::record({.id = 5}, "x"))));
    several.push_back(sources::alternateFileSource({.name = "", .kind = Kind::ALTERNATE},
                                                   {alternate.begin(), alternate.end()}));
    Merge merge(std::move(several));
    EXPECT_EQ(merge.next()->view.header->evSequenceId, 5U);
    EXPECT_EQ(merge.next()->view.header->evSequenceId, 1U);
}

TEST(Merge, MarksWhatAnotherSourceHasGivenAlready) {
    auto image = [](const std::string& bytes) { return test::imageOf(bytes); };
    std::string one = test::record({.id = 1, .time = 100}, "x");
    std::string two = test::record({.id = 2, .time = 200}, "x");
    std::string other = test::record({.id = 2, .time = 200}, "y");
    Sources several;
    std::vector<std::string> files = {one + two, one + other,
                                      test::record({.slot = 3, .id = 1, .time = 100}, "x")};
    for (const std::string& bytes : files) {
        several.push_back(sources::logSource({}, image(bytes)));
    }
    several.push_back(sources::alternateFileSource({}, {two.begin(), two.end()}));
    Merge merge(std::move(several));
    std::string doubles;
    while (std::optional<sources::Event> event = merge.next()) {
        doubles += event->isDouble ? 'd' : '-';
    }
    EXPECT_EQ(doubles, "-d---d"); // 1, its double, that of another slot; 2, another 2, the double
}

// Among millions of events some have the same checksum by chance.
TEST(Merge, EventsOfOneChecksumAreTwoByIdSlotOrTime) {
    const std::string one = test::record({.id = 1, .time = 100}, "xxxx");
    for (const std::string& other :
         {test::record({.id = 2, .time = 100}, "\xD7\x30\x0E\x29"),
          test::record({.slot = 3, .id = 1, .time = 100}, "\x95\x05\x72\x75"),
          test::record({.id = 1, .time = 101}, "\x30\xAE\x46\x8C")}) {
        ASSERT_EQ(one.substr(4, 4), other.substr(4, 4));
        Sources several;
        several.push_back(sources::logSource({}, test::imageOf(one)));
        several.push_back(sources::logSource({}, test::imageOf(other)));
        Merge merge(std::move(several));
        EXPECT_FALSE(merge.next()->isDouble);
        EXPECT_FALSE(merge.next()->isDouble);
    }
}

TEST(Merge, WhatOneSourceGivesTwiceIsNoDouble) {
    std::string one = test::record({.id = 1, .time = 100}, "x");
    Sources several;
    several.push_back(sources::logSource({}, test::imageOf(one + one)));
    several.push_back(sources::logSource({}, test::imageOf(test::record({.id = 9}, "y"))));
    Merge merge(std::move(several));
    while (std::optional<sources::Event> event = merge.next()) {
        EXPECT_FALSE(event->isDouble);
    }
}

TEST(Merge, AlternateEventsThatDifferInTheirDataAreBothGiven) {
    Sources several;
    for (const char* data : {"x", "y", "x"}) {
        std::string bytes = test::record({.id = 1, .time = 100}, data);
        several.push_back(sources::alternateFileSource({}, {bytes.begin(), bytes.end()}));
    }
    Merge merge(std::move(several));
    std::string doubles;
    while (std::optional<sources::Event> event = merge.next()) {
        doubles += event->isDouble ? 'd' : '-';
    }
    EXPECT_EQ(doubles, "--d");
}

TEST(Logs, AreChosenByTheirWholeNames) {
    std::string bytes = test::record({.id = 1}, "x");
    std::unique_ptr<Source> source = sources::logSource({}, test::imageOf(bytes));
    std::optional<sources::Event> event = source->next();
    ASSERT_TRUE(event);
    const EmpEvLogHeader_t& header = *event->view.header;
    EXPECT_TRUE(sources::LogChoice{}.matches(header));
    EXPECT_TRUE((sources::LogChoice{"CHASSIS-1", "BLADE-A", 2, 7}.matches(header)));
    EXPECT_FALSE((sources::LogChoice{.enclosure = "CHASSIS"}.matches(header)));
    EXPECT_FALSE((sources::LogChoice{.blade = "BLADE-AB"}.matches(header)));
    EXPECT_FALSE((sources::LogChoice{.slot = 1}.matches(header)));
    EXPECT_FALSE((sources::LogChoice{.instance = 8}.matches(header)));
}

TEST_F(SourcesOf, DamageAtRandomNeverHarmsTheReader) {
    std::mt19937 random(4711);
    const std::string whole = wrappedLog().substr(0, 2000);
    for (int round = 0; round < 300; round++) {
        std::string bytes = whole.substr(0, random() % whole.size());
        for (auto count = random() % 20; count > 0 && !bytes.empty(); count--) {
            bytes[random() % bytes.size()] = static_cast<char>(random());
        }
        for (const char* name : {"log", "kelta_alteventlog1"}) {
            try {
                for (auto& source : sources::openBytes(name, {bytes.begin(), bytes.end()})) {
                    EXPECT_LE(idsOf(*source).size(), 13U);
                }
            } catch (const std::runtime_error& error) {
                EXPECT_THAT(error.what(), HasSubstr("no event log"));
            }
        }
    }
}
