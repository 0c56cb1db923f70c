/** Alternate event log files in the order in which a start replays them, and as a source. */
#include "ids.h"
#include "sources/alternate_files.h"

#include "ael_file.h"
#include "temp_directory.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

using sources::AelFate;
using sources::AelFile;
using sources::LogFile;
using testing::ElementsAre;

namespace {

constexpr uint8_t STARTUP = 18;
constexpr uint8_t OTHER = 20;

std::vector<U8_t> bytesOf(const std::string& text) {
    return {text.begin(), text.end()};
}

AelFile waiting(const std::string& name, S64_t modified, const AelFile_t& content) {
    AelFile file;
    file.name = name;
    file.modified = modified;
    file.bytes = bytesOf(content.bytes());
    sources::judgeAelFile(file);
    return file;
}

/** Names in the order of replay, of files found in the order given. */
std::vector<std::string> replayed(std::vector<AelFile> found) {
    std::vector<std::string> names;
    for (const AelFile& file : sources::inOrderOfReplay(std::move(found))) {
        names.push_back(file.name);
    }
    return names;
}

std::vector<std::string> fatesIn(const std::string& directory) {
    std::vector<std::string> fates;
    for (const AelFile& file : sources::readAelDirectory(directory)) {
        fates.push_back(file.name + ": " + sources::aelFateName(file.fate) + ", " + file.reason);
    }
    return fates;
}

} // namespace

// The event manager compares the times as 32-bit numbers with a sign.
TEST(AelOrder, TimesBehind2038ComeBeforeAllOthers) {
    const S64_t year2040 = 2'208'988'800;
    EXPECT_THAT(
        replayed({waiting("now", 1000, {}), waiting("2040", year2040, {}), waiting("0", 0, {})}),
        ElementsAre("2040", "0", "now"));
}

TEST(AelOrder, OfOneSecondOnlyTheStartupProcessesFilesGoByTheirIds) {
    auto pair = [](uint8_t first, uint32_t firstId, uint8_t second, uint32_t secondId) {
        return replayed({waiting("first", 5, {.sequenceId = firstId, .source = first}),
                         waiting("second", 5, {.sequenceId = secondId, .source = second})});
    };
    EXPECT_THAT(pair(STARTUP, 9, STARTUP, 7), ElementsAre("second", "first"));
    EXPECT_THAT(pair(STARTUP, 7, STARTUP, 7), ElementsAre("first", "second"));
    EXPECT_THAT(pair(OTHER, 9, OTHER, 7), ElementsAre("first", "second"));
    EXPECT_THAT(pair(STARTUP, 9, OTHER, 7), ElementsAre("first", "second"));
    EXPECT_THAT(pair(OTHER, 9, STARTUP, 7), ElementsAre("second", "first"));
}

TEST(AelOrder, AFileThatIsCutKeepsItsHeaderAlone) {
    const AelFile cut = waiting("cut", 1, {.announcedLength = 50});
    EXPECT_EQ(cut.fate, AelFate::DELETED);
    EXPECT_EQ(cut.bytes.size(), 160U);
    AelFile longer;
    longer.bytes = bytesOf(AelFile_t{}.bytes() + "more");
    sources::judgeAelFile(longer);
    EXPECT_EQ(longer.bytes.size(), 164U);
}

TEST(AelOrder, DirectoriesAreRemovedWhenEmptyAndLinksAlways) {
    const support::TempDirectory directory;
    directory.makeDirectory("kelta_alteventlogempty");
    directory.makeDirectory("kelta_alteventlogfull");
    directory.makeDirectory("kelta_alteventlogfull/x");
    ASSERT_EQ(symlink("kelta_alteventlogfull", directory.file("kelta_alteventloglink").c_str()), 0);
    ASSERT_EQ(symlink("kelta_alteventlogfull", directory.file("link").c_str()), 0);
    EXPECT_THAT(fatesIn(directory.path()),
                ElementsAre("kelta_alteventlogempty: deleted, not a regular file",
                            "kelta_alteventlogfull: stays, a directory that is not empty",
                            "kelta_alteventloglink: deleted, not a regular file",
                            "link: deleted, not the name of an alternate event log file"));
}

TEST(AelOrder, OfABundleTheyAreTakenOutAndJudgedAsThoseOfADirectory) {
    auto member = [](const std::string& name, S64_t modified, const std::string& bytes) {
        LogFile file{.name = name, .kind = sources::Kind::ALTERNATE, .image = {}};
        file.image.bytes = bytesOf(bytes);
        file.image.fileSize = bytes.size();
        file.modified = modified;
        return file;
    };
    std::vector<LogFile> files = {
        member("help.tar.gz:nvram/aelfiles/kelta_alteventlog1.late", 20, AelFile_t{}.bytes()),
        {.name = "help.tar.gz:nvram/kelta_eventlog", .kind = sources::Kind::LOG, .image = {}},
        member("help.tar.gz:kelta_alteventlog1.early", 10, AelFile_t{}.bytes() + "more"),
    };
    const std::vector<AelFile> taken = sources::takeAlternates(files);
    ASSERT_EQ(files.size(), 1U);
    EXPECT_EQ(files[0].name, "help.tar.gz:nvram/kelta_eventlog");
    ASSERT_EQ(taken.size(), 2U);
    EXPECT_EQ(taken[0].name, "kelta_alteventlog1.early");
    EXPECT_EQ(taken[0].size, 168U);
    EXPECT_EQ(taken[0].modified, 10);
    EXPECT_EQ(taken[1].name, "kelta_alteventlog1.late");
    EXPECT_EQ(taken[1].order, 2U);
}

TEST(AelOrder, AsASourceTheyHavePlacesAndCanBeReadAgain) {
    const support::TempDirectory directory;
    for (const char* name : {"kelta_alteventlog1.a", "kelta_alteventlog1.b"}) {
        support::writeFile(directory.file(name), AelFile_t{}.bytes());
    }
    const auto found = sources::openSources(directory.path());
    ASSERT_EQ(found.size(), 1U);
    for (int time = 0; time < 2; time++) {
        for (U64_t place = 0; place < 2; place++) {
            const auto event = found[0]->next();
            ASSERT_TRUE(event) << time;
            EXPECT_EQ(event->position, place);
        }
        EXPECT_FALSE(found[0]->next());
        found[0]->rewind();
    }
}
