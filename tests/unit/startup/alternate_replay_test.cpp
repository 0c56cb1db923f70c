// Which files are replayed, in which order, and as what.
#include "alternate_replay_fixture.h"
#include "dying_child.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

const char FRONT[] = STAMP P "Place working-on element in front of current element.\n";
const char KEEP_SEARCHING[] = STAMP P "Not a working-on Startup AEL. Keep searching.\n";

// --- One good file -------------------------------------------------------------------------------

TEST_F(AlternateReplay, GoodFileIsDispatchedAndRemoved) {
    putEvent("kelta_alteventlog12.abcdef", AelFile_t{});
    std::string name = pathOf("kelta_alteventlog12.abcdef");
    char checksum[16];
    std::string bytes = AelFile_t{}.bytes();
    snprintf(checksum, sizeof(checksum), "%X", bitwiseChecksum(bytes.substr(8)));
    EXPECT_EQ(replay(), head() + collected("kelta_alteventlog12.abcdef", 5000, 0) +
                            first("kelta_alteventlog12.abcdef") +
                            stamped(P "Calculated CRCChecksum = [0x" + std::string(checksum) +
                                    "].\n" P "CRC Checksum in Event Entry from AEL File [" + name +
                                    "] matches.\n") +
                            "dispatch\n" +
                            stamped(P "Finish and remove AEL File [" + name + "].\n"));
    EXPECT_THAT(left(), ElementsAre());
}

TEST_F(AlternateReplay, MessageKeepsWhatTheFileCarries) {
    AelFile_t file;
    file.sequenceId = 0x11223344;
    file.time = 0x55667788;
    putEvent("kelta_alteventlog1.a", file);
    replay();
    ASSERT_EQ(dispatched.size(), 1U);
    std::string mmch = std::string(8, '\0') + "\x0E\x01" + std::string("\x00\xDC", 2) +
                       std::string("\x08\x00\x00\x07", 4) + "\x14" + std::string(3, '\0') +
                       std::string("\x08\x00\x00\x00", 4) + std::string(40, '\0');
    std::string body = paddedText("Other-Enclosure", 64) + paddedText("Other-Blade", 64) +
                       std::string("\x00\x00\x00\x07", 4) + std::string(8, '\0') +
                       "\x55\x66\x77\x88" + std::string("\x00\x04", 2) +
                       "\x14\x02\x04\x05\x01\x02"
                       "data";
    EXPECT_EQ(dispatched[0], mmch + body);
    EXPECT_EQ(empControl.empInMsg[220], 0);
    EXPECT_EQ(empControl.empInMsg[4063], 0);
}

TEST_F(AlternateReplay, EventWithoutDataIsReplayed) {
    AelFile_t file;
    file.data = "";
    putEvent("kelta_alteventlog1.a", file);
    replay();
    ASSERT_EQ(dispatched.size(), 1U);
    EXPECT_EQ(dispatched[0].size(), 216U);
}

TEST_F(AlternateReplay, BytesBehindTheDataAreIgnored) {
    put("kelta_alteventlog1.a", AelFile_t{}.bytes() + "more");
    replay();
    ASSERT_EQ(dispatched.size(), 1U);
    EXPECT_EQ(dispatched[0].substr(216), "data");
}

TEST_F(AlternateReplay, VersionIsNotChecked) {
    AelFile_t file;
    file.version = 255;
    putEvent("kelta_alteventlog1.a", file);
    replay();
    EXPECT_EQ(dispatched.size(), 1U);
}

TEST_F(AlternateReplay, FileIsThereUntilItsDispatchIsOver) {
    putEvent("kelta_alteventlog1.a", AelFile_t{});
    bool there = false;
    duringDispatch = [&] { there = fs::exists(pathOf("kelta_alteventlog1.a")); };
    replay();
    EXPECT_TRUE(there);
    EXPECT_THAT(left(), ElementsAre());
}

TEST_F(AlternateReplay, BugCheckInsideTheDispatchLeavesTheFile) {
    putEvent("kelta_alteventlog1.a", AelFile_t{});
    duringDispatch = [] { abort(); };
    ChildEnd result = endOf([] { empProcessAlternateEventLogFiles(); });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_THAT(left(), ElementsAre("kelta_alteventlog1.a"));
}

TEST_F(AlternateReplay, DispatchMayUseTheWorkSpace) {
    AelFile_t file;
    file.id = 1;
    putEvent("kelta_alteventlog1.a", file, 1);
    file.id = 2;
    putEvent("kelta_alteventlog1.b", file, 2);
    duringDispatch = [] { memset(eventEntryWorkSpace, 0x55, 4064); };
    replay();
    EXPECT_THAT(ids(), ElementsAre(1, 2));
    EXPECT_THAT(left(), ElementsAre());
}

// --- Order ---------------------------------------------------------------------------------------

TEST_F(AlternateReplay, FilesGoInTheOrderOfTheirTimes) {
    AelFile_t file;
    for (int id : {30, 10, 20, 40}) {
        file.id = static_cast<uint16_t>(id);
        putEvent("kelta_alteventlog" + std::to_string(100 - id), file, id);
    }
    std::string text = replay();
    EXPECT_THAT(ids(), ElementsAre(10, 20, 30, 40));
    // Names ascend: 60 (id 40), 70 (30), 80 (20), 90 (10).
    EXPECT_EQ(text.substr(0, text.find(STAMP P "Calculated")),
              head() + collected("kelta_alteventlog60", 40, 0) + first("kelta_alteventlog60") +
                  collected("kelta_alteventlog70", 30, 0) + FRONT +
                  collected("kelta_alteventlog80", 20, 0) + FRONT +
                  collected("kelta_alteventlog90", 10, 0) + FRONT);
}

TEST_F(AlternateReplay, TimesBefore1970ComeFirst) {
    AelFile_t file;
    file.id = 1;
    putEvent("kelta_alteventlog1", file, 5);
    file.id = 2;
    putEvent("kelta_alteventlog2", file, -5);
    replay();
    EXPECT_THAT(ids(), ElementsAre(2, 1));
}

TEST_F(AlternateReplay, TimesAfter2038AreOrderedByTheirTrueValue) {
    AelFile_t file;
    const int64_t times[] = {0x1'0000'0001, 0x80000000, 0x7FFFFFFF, 800'000'000, 0xFFFFFFFF};
    for (int id = 1; id <= 5; id++) {
        file.id = static_cast<uint16_t>(id);
        std::string name = "kelta_alteventlog" + std::to_string(id);
        putEvent(name, file);
        farTimes[name] = times[id - 1];
    }
    std::string text = replay();
    EXPECT_THAT(ids(), ElementsAre(4, 3, 2, 5, 1));
    EXPECT_THAT(text, HasSubstr("kelta_alteventlog2], st_mtime = [-2147483648].\n"));
    EXPECT_THAT(text, HasSubstr("kelta_alteventlog1], st_mtime = [1].\n"));
    EXPECT_THAT(left(), ElementsAre());
}

TEST_F(AlternateReplay, TiesKeepTheOrderOfTheDirectory) {
    for (bool order : {false, true}) {
        descending = order;
        listed.clear();
        nextListed = 0;
        dispatched.clear();
        AelFile_t file;
        for (int id : {1, 2, 3}) {
            file.id = static_cast<uint16_t>(id);
            file.sequenceId = static_cast<uint32_t>(10 - id); // of no interest: not source 18
            putEvent("kelta_alteventlog" + std::to_string(id), file);
        }
        replay();
        if (order) {
            EXPECT_THAT(ids(), ElementsAre(3, 2, 1));
        } else {
            EXPECT_THAT(ids(), ElementsAre(1, 2, 3));
        }
    }
}

TEST_F(AlternateReplay, EveryComparisonOfATieIsALine) {
    AelFile_t file;
    putEvent("kelta_alteventlog1", file);
    putEvent("kelta_alteventlog2", file);
    putEvent("kelta_alteventlog3", file);
    std::string text = replay();
    EXPECT_EQ(text.substr(0, text.find(STAMP P "Calculated")),
              head() + collected("kelta_alteventlog1", 5000, 0) + first("kelta_alteventlog1") +
                  collected("kelta_alteventlog2", 5000, 0) + KEEP_SEARCHING +
                  behind("kelta_alteventlog2", "kelta_alteventlog1") +
                  collected("kelta_alteventlog3", 5000, 0) + KEEP_SEARCHING + KEEP_SEARCHING +
                  behind("kelta_alteventlog3", "kelta_alteventlog2"));
}

TEST_F(AlternateReplay, StartupFilesOfOneTimeGoByTheirStoredIds) {
    for (bool order : {false, true}) {
        descending = order;
        listed.clear();
        nextListed = 0;
        dispatched.clear();
        AelFile_t file;
        file.source = 18;
        for (int id : {2, 3, 1}) {
            file.id = static_cast<uint16_t>(id);
            file.sequenceId = id == 3 ? 0x80000001U : static_cast<uint32_t>(id); // unsigned
            putEvent(std::string("kelta_alteventlog") + "abc"[2 * id % 3], file);
        }
        replay();
        EXPECT_THAT(ids(), ElementsAre(1, 2, 3));
    }
}

TEST_F(AlternateReplay, StartupFileInFrontPrintsTheSameLine) {
    AelFile_t file;
    file.source = 18;
    file.sequenceId = 9;
    putEvent("kelta_alteventlog1", file);
    file.sequenceId = 8;
    putEvent("kelta_alteventlog2", file);
    file.sequenceId = 9; // equal: behind
    putEvent("kelta_alteventlog3", file);
    std::string text = replay();
    EXPECT_EQ(text.substr(0, text.find(STAMP P "Calculated")),
              head() + collected("kelta_alteventlog1", 5000, 9) + first("kelta_alteventlog1") +
                  collected("kelta_alteventlog2", 5000, 8) + FRONT +
                  collected("kelta_alteventlog3", 5000, 9) +
                  behind("kelta_alteventlog3", "kelta_alteventlog1"));
}

// --- Long names, long events ---------------------------------------------------------------------

TEST_F(AlternateReplay, OverlongNamesAreCutInTextsOnly) {
    // Two names that are the same up to the cut, and a third file that has the cut name.
    std::string cut = pathOf("kelta_alteventlog").append(200, 'x').substr(0, 107);
    std::string shortName = cut.substr(directory_.size() + 1);
    AelFile_t file;
    file.id = 1;
    putEvent(shortName + "xxxx1", file, 1);
    file.id = 2;
    putEvent(shortName + "xxxx2", file, 2);
    file.id = 3;
    putEvent(shortName, file, 3);
    std::string text = replay();
    EXPECT_THAT(ids(), ElementsAre(1, 2, 3));
    EXPECT_THAT(left(), ElementsAre());
    EXPECT_THAT(text, HasSubstr("Finish and remove AEL File [" + cut + "].\n"));
    EXPECT_THAT(text, Not(HasSubstr("Finish and remove AEL File [" + cut + "x")));
}

TEST_F(AlternateReplay, BadFileWithAnOverlongNameDoesNotTakeAnotherWithIt) {
    std::string shortName =
        pathOf("kelta_alteventlog").append(200, 'x').substr(0, 107).substr(directory_.size() + 1);
    AelFile_t file;
    file.checksumError = 1;
    putEvent(shortName + "tail", file, 1);
    file.checksumError = 0;
    file.id = 9;
    putEvent(shortName, file, 2);
    replay();
    EXPECT_THAT(ids(), ElementsAre(9));
    EXPECT_THAT(left(), ElementsAre());
}

TEST_F(AlternateReplay, NameOf255CharactersIsReplayed) {
    putEvent(paddedText("kelta_alteventlog", 17) + std::string(238, 'y'), AelFile_t{});
    replay();
    EXPECT_EQ(dispatched.size(), 1U);
    EXPECT_THAT(left(), ElementsAre());
}

TEST_F(AlternateReplay, LengthOfAHugeEventWrapsAt65536) {
    const struct {
        size_t data;
        int mmsgLength;
    } cases[] = {{3848, 4064}, {3849, 4065}, {65319, 65535}, {65320, 0},
                 {65383, 63},  {65384, 64},  {65535, 215}};
    for (const auto& [data, mmsgLength] : cases) {
        listed.clear();
        nextListed = 0;
        dispatched.clear();
        AelFile_t file;
        file.data.assign(data, 'd');
        file.data.back() = 'e';
        putEvent("kelta_alteventlog1", file);
        EXPECT_THAT(replay(), HasSubstr("Finish and remove AEL File"));
        ASSERT_EQ(dispatched.size(), 1U);
        EXPECT_EQ(static_cast<U8_t>(dispatched[0][10]) << 8 | static_cast<U8_t>(dispatched[0][11]),
                  mmsgLength);
        EXPECT_EQ(dispatched[0].substr(216), file.data);
        EXPECT_THAT(left(), ElementsAre());
    }
}

} // namespace
