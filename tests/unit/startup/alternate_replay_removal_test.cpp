// What the replay removes unread, and what becomes of a directory that it cannot read.
#include "alternate_replay_fixture.h"

#include <cerrno>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

std::string cannotRead(const std::string& path, int size) {
    return stamped(P "Can't read Event Entry from AEL File [" + path + "] with size [" +
                   std::to_string(size) + "].\n");
}

// --- What is removed -----------------------------------------------------------------------------

TEST_F(AlternateReplay, UnrecognizedFilesAreRemoved) {
    put("readme.txt", "text");
    put("kelta_alteventlo", "one letter short");
    std::string text = replay();
    EXPECT_EQ(text,
              head() + found("kelta_alteventlo") +
                  stamped(P "Remove Unrecognized File [" + pathOf("kelta_alteventlo") + "].\n") +
                  found("readme.txt") +
                  stamped(P "Remove Unrecognized File [" + pathOf("readme.txt") + "].\n"));
    EXPECT_THAT(left(), ElementsAre());
}

TEST_F(AlternateReplay, NamesOfTwoCharactersStay) {
    put("a", "text");
    put("ab", "text");
    put("abc", "text");
    EXPECT_THAT(replay(), Not(HasSubstr("[" + pathOf("ab") + "]")));
    EXPECT_THAT(left(), ElementsAre("a", "ab"));
}

TEST_F(AlternateReplay, DirectoriesStayWhenTheyHoldSomething) {
    fs::create_directory(pathOf("empty"));
    fs::create_directories(pathOf("full/inside"));
    replay();
    EXPECT_THAT(left(), ElementsAre("full"));
}

TEST_F(AlternateReplay, EmptyFileIsRemoved) {
    put("kelta_alteventlog1", "");
    EXPECT_EQ(replay(),
              head() + found("kelta_alteventlog1") +
                  stamped(P "Remove 0 byte File [" + pathOf("kelta_alteventlog1") + "].\n"));
    EXPECT_THAT(left(), ElementsAre());
}

TEST_F(AlternateReplay, DanglingLinkAndFailedStatCountAsEmpty) {
    fs::create_symlink("/nowhere/at/all", pathOf("kelta_alteventlog1"));
    putEvent("kelta_alteventlog2", AelFile_t{});
    failingCall = "stat";
    hiddenFrom = "eventlog2";
    std::string text = replay();
    EXPECT_THAT(text, HasSubstr("Remove 0 byte File [" + pathOf("kelta_alteventlog1") + "].\n"));
    EXPECT_THAT(text, HasSubstr("Remove 0 byte File [" + pathOf("kelta_alteventlog2") + "].\n"));
    EXPECT_THAT(left(), ElementsAre());
    EXPECT_THAT(ids(), ElementsAre());
}

TEST_F(AlternateReplay, FifoIsRemovedWithoutBeingOpened) {
    ASSERT_EQ(mkfifo(pathOf("kelta_alteventlog1").c_str(), 0600), 0);
    EXPECT_THAT(replay(), HasSubstr("Remove 0 byte File"));
    EXPECT_EQ(openFlags, 0);
    EXPECT_THAT(left(), ElementsAre());
}

TEST_F(AlternateReplay, FilesAreOpenedWithoutWaiting) {
    putEvent("kelta_alteventlog1", AelFile_t{});
    replay();
    EXPECT_EQ(openFlags & (O_ACCMODE | O_NONBLOCK | O_NOCTTY | O_CLOEXEC),
              O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
}

TEST_F(AlternateReplay, DirectoryWithAGoodNameCountsAsShortWithSizeZero) {
    fs::create_directories(pathOf("kelta_alteventlog1/inside"));
    ASSERT_NE(realSizeOf(pathOf("kelta_alteventlog1")), 0);
    struct timespec times[2] = {{5000, 0}, {5000, 0}};
    utimensat(AT_FDCWD, pathOf("kelta_alteventlog1").c_str(), times, 0);
    EXPECT_EQ(replay(), head() + found("kelta_alteventlog1") +
                            stamped(P "AEL File [" + pathOf("kelta_alteventlog1") +
                                    "], st_mtime = [5000].\n") +
                            cannotRead(pathOf("kelta_alteventlog1"), 0) + "\n");
    EXPECT_THAT(left(), ElementsAre("kelta_alteventlog1"));
}

TEST_F(AlternateReplay, LinkIsFollowedAndOnlyTheLinkRemoved) {
    std::ofstream(nvram_ + "/target", std::ios::binary) << AelFile_t{}.bytes();
    fs::create_symlink(nvram_ + "/target", pathOf("kelta_alteventlog1"));
    replay();
    EXPECT_EQ(dispatched.size(), 1U);
    EXPECT_THAT(left(), ElementsAre());
    EXPECT_TRUE(fs::exists(nvram_ + "/target"));
}

TEST_F(AlternateReplay, ShortHeaderIsDumpedAndRemovedWhileCollecting) {
    put("kelta_alteventlog1", "\xB6\x8F\x01\xFF\x80");
    EXPECT_EQ(replay(), head() + found("kelta_alteventlog1") +
                            stamped(P "AEL File [" + pathOf("kelta_alteventlog1") +
                                    "], st_mtime = [5000].\n") +
                            cannotRead(pathOf("kelta_alteventlog1"), 5) + "B68F01FF 80\n");
    EXPECT_THAT(left(), ElementsAre());
}

TEST_F(AlternateReplay, HeaderOf159BytesIsShort) {
    put("kelta_alteventlog1", AelFile_t{}.bytes().substr(0, 159));
    EXPECT_THAT(replay(), HasSubstr("with size [159]"));
    EXPECT_THAT(ids(), ElementsAre());
}

TEST_F(AlternateReplay, FileThatCannotBeOpenedShowsMinusOneAndALineFeed) {
    putEvent("kelta_alteventlog1", AelFile_t{});
    failingCall = "open";
    EXPECT_THAT(replay(), HasSubstr(cannotRead(pathOf("kelta_alteventlog1"), -1) + "\n"));
    EXPECT_THAT(left(), ElementsAre());
}

TEST_F(AlternateReplay, FailedReadIsShort) {
    putEvent("kelta_alteventlog1", AelFile_t{});
    failingCall = "read";
    EXPECT_THAT(replay(), HasSubstr(cannotRead(pathOf("kelta_alteventlog1"), -1) + "\n"));
    EXPECT_THAT(left(), ElementsAre());
}

TEST_F(AlternateReplay, FileThatShrankBeforeItsTurnIsRemoved) {
    AelFile_t file;
    putEvent("kelta_alteventlog1", file, 1);
    putEvent("kelta_alteventlog2", file, 2);
    duringDispatch = [&] { put("kelta_alteventlog2", "\xB6\x8F"); };
    std::string text = replay();
    EXPECT_EQ(text.substr(text.find(P "Can't") - strlen(STAMP)),
              cannotRead(pathOf("kelta_alteventlog2"), 2) + "B68F\n" +
                  removed("kelta_alteventlog2"));
    EXPECT_EQ(dispatched.size(), 1U);
    EXPECT_THAT(left(), ElementsAre());
}

TEST_F(AlternateReplay, DataShorterThanAnnouncedIsDumpedAndRemoved) {
    AelFile_t file;
    file.announcedLength = 5;
    putEvent("kelta_alteventlog1", file);
    EXPECT_EQ(replay(), head() + collected("kelta_alteventlog1", 5000, 0) +
                            first("kelta_alteventlog1") +
                            stamped(P "Can't read Event Entry Structure from AEL File [" +
                                    pathOf("kelta_alteventlog1") + "].\n") +
                            "64617461 \n" + removed("kelta_alteventlog1"));
    EXPECT_THAT(left(), ElementsAre());
}

TEST_F(AlternateReplay, WrongSignatureIsRemoved) {
    AelFile_t file;
    file.signature = 0xB68E;
    putEvent("kelta_alteventlog1", file);
    EXPECT_EQ(replay(), head() + collected("kelta_alteventlog1", 5000, 0) +
                            first("kelta_alteventlog1") +
                            stamped(P "Signature in Event Entry from AEL File [" +
                                    pathOf("kelta_alteventlog1") + "] doesn't match.\n") +
                            removed("kelta_alteventlog1"));
    EXPECT_THAT(left(), ElementsAre());
}

TEST_F(AlternateReplay, WrongChecksumIsRemovedAndTheNextFileReplayed) {
    AelFile_t file;
    file.id = 1;
    file.checksumError = 0x100;
    putEvent("kelta_alteventlog1", file, 1);
    file.id = 2;
    file.checksumError = 0;
    putEvent("kelta_alteventlog2", file, 2);
    EXPECT_THAT(replay(), HasSubstr(stamped(P "CRC Checksum in Event Entry from AEL File [" +
                                            pathOf("kelta_alteventlog1") + "] doesn't match.\n") +
                                    removed("kelta_alteventlog1")));
    EXPECT_THAT(ids(), ElementsAre(2));
    EXPECT_THAT(left(), ElementsAre());
}

// --- The directory -------------------------------------------------------------------------------

TEST_F(AlternateReplay, WithoutDirectoryNothingHappens) {
    fs::remove(directory_);
    EXPECT_EQ(replay(), stamped(P "AEL File Path = [" + directory_ +
                                "].\n" P "Unable to open directory [" + directory_ + "].\n"));
}

TEST_F(AlternateReplay, DirectoryThatCannotBeOpenedIsLeftAlone) {
    putEvent("kelta_alteventlog1", AelFile_t{});
    failingCall = "opendir";
    EXPECT_THAT(replay(), HasSubstr("Unable to open directory"));
    EXPECT_THAT(left(), ElementsAre("kelta_alteventlog1"));
}

TEST_F(AlternateReplay, ErrorOfReaddirIsALineAndWhatWasFoundIsReplayed) {
    putEvent("kelta_alteventlog1", AelFile_t{});
    readdirError = EIO;
    EXPECT_THAT(replay(),
                HasSubstr(first("kelta_alteventlog1") +
                          stamped(P "Read error scanning directory [" + directory_ + "].\n")));
    EXPECT_EQ(dispatched.size(), 1U);
}

TEST_F(AlternateReplay, StaleErrnoIsNoErrorOfReaddir) {
    put("kelta_alteventlog1", "");
    failingCall = "stat"; // leaves EOVERFLOW behind
    hiddenFrom = "eventlog1";
    EXPECT_THAT(replay(), Not(HasSubstr("Read error")));
}

TEST_F(AlternateReplay, WithoutMemoryTheFileWaitsForTheNextStart) {
    putEvent("kelta_alteventlog1", AelFile_t{});
    put("other", "text");
    failingCall = "calloc";
    EXPECT_EQ(replay(), head() + found("kelta_alteventlog1") + found("other") +
                            stamped(P "Remove Unrecognized File [" + pathOf("other") + "].\n"));
    EXPECT_THAT(left(), ElementsAre("kelta_alteventlog1"));
}

TEST_F(AlternateReplay, DirectoryTextWithoutTerminatorIsBounded) {
    memset(parameters.nvramDirectory, 'n', sizeof(parameters.nvramDirectory));
    EXPECT_EQ(replay(), stamped(P "AEL File Path = [" + std::string(128, 'n') +
                                "/aelfiles].\n" P "Unable to open directory [" +
                                std::string(128, 'n') + "/aelfiles].\n"));
}

TEST_F(AlternateReplay, SilentWithoutDebug) {
    empControl.empDebug = 0;
    putEvent("kelta_alteventlog1", AelFile_t{});
    EXPECT_EQ(replay(), "dispatch\n");
}

} // namespace
