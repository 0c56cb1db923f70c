#include "sources/alternate_files.h"

#include "ael_file.h"
#include "temp_directory.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

using sources::AelFate;
using sources::AelFile;

namespace {

class AelFiles : public testing::Test {
  protected:
    /** A file with the prefix, modified at @p time. */
    void put(const std::string& suffix, const std::string& bytes, time_t time = 1000) {
        putNamed("kelta_alteventlog" + suffix, bytes, time);
    }
    void putNamed(const std::string& name, const std::string& bytes, time_t time = 1000) {
        support::writeFile(directory_.file(name), bytes);
        struct timespec times[2] = {{time, 0}, {time, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, directory_.file(name).c_str(), times, 0), 0);
    }
    std::vector<AelFile> files() const { return sources::readAelDirectory(directory_.path()); }

    /** "suffix:fate[:reason]" of each, in order. */
    std::vector<std::string> verdicts() const {
        std::vector<std::string> texts;
        for (const AelFile& file : files()) {
            texts.push_back((file.name.starts_with("kelta") ? file.name.substr(17) : file.name) +
                            ":" + sources::aelFateName(file.fate) +
                            (file.reason.empty() ? "" : ":" + file.reason));
        }
        return texts;
    }

    support::TempDirectory directory_;
};

using Verdicts = std::vector<std::string>;

} // namespace

TEST_F(AelFiles, AGoodFileIsStored) {
    put("1.a", AelFile_t{}.bytes());
    std::vector<AelFile> all = files();
    ASSERT_EQ(all.size(), 1U);
    EXPECT_EQ(all[0].fate, AelFate::STORED);
    EXPECT_EQ(all[0].size, 164U);
    EXPECT_EQ(all[0].modified, 1000);
    EXPECT_EQ(all[0].order, 1U);
    EXPECT_EQ(U16_t{all[0].header().evId}, 0x0102);
    EXPECT_EQ(std::string(all[0].data().begin(), all[0].data().end()), "data");
}

TEST_F(AelFiles, WhatTheStartDoesNotLookAtDoesNotMatter) {
    put("1.version", AelFile_t{.version = 2}.bytes(), 1);
    put("2.behind", AelFile_t{}.bytes() + "more", 2);
    put("3.nodata", AelFile_t{.data = ""}.bytes(), 3);
    EXPECT_EQ(verdicts(), (Verdicts{"1.version:stored", "2.behind:stored", "3.nodata:stored"}));
}

TEST_F(AelFiles, DamagedFilesAreDeleted) {
    put("1.crc", AelFile_t{.checksumError = 1}.bytes(), 1);
    put("2.signature", AelFile_t{.signature = 0xB68E}.bytes(), 2);
    put("3.cut", AelFile_t{.announcedLength = 5}.bytes(), 3);
    put("4.source", AelFile_t{.source = 35}.bytes(), 4);
    put("5.long", AelFile_t{.data = std::string(3849, 'x')}.bytes(), 5);
    put("6.longest", AelFile_t{.data = std::string(65'535, 'x')}.bytes(), 6);
    put("6.longest of id 1", AelFile_t{.id = 1, .data = std::string(3849, 'x')}.bytes(), 7);
    put("7.short", AelFile_t{}.bytes().substr(0, 159), 7);
    put("8.empty", "", 8);
    EXPECT_EQ(verdicts(), (Verdicts{"1.crc:deleted:the checksum does not match",
                                    "2.signature:deleted:no record's signature",
                                    "3.cut:deleted:shorter than its header says",
                                    "4.source:deleted:a source above 34",
                                    "5.long:deleted:more than 3848 bytes of data",
                                    "6.longest:deleted:more than 3848 bytes of data",
                                    "6.longest of id 1:deleted:more than 3848 bytes of data",
                                    "7.short:deleted:shorter than a record's header",
                                    "8.empty:deleted:empty"}));
}

TEST_F(AelFiles, TheLimitsThemselvesAreStored) {
    put("1.a", AelFile_t{.source = 34, .data = std::string(3848, 'x')}.bytes());
    EXPECT_EQ(verdicts(), Verdicts{"1.a:stored"});
}

TEST_F(AelFiles, ForeignNamesAreDeletedShortOnesStay) {
    putNamed("readme.txt", "text");
    putNamed("abc", "");
    putNamed("ab", "text");
    directory_.makeDirectory("empty");
    directory_.makeDirectory("full");
    directory_.makeDirectory("full/x");
    EXPECT_EQ(verdicts(),
              (Verdicts{"ab:stays:a name of one or two characters",
                        "abc:deleted:not the name of an alternate event log file",
                        "empty:deleted:not the name of an alternate event log file",
                        "full:stays:a directory that is not empty",
                        "readme.txt:deleted:not the name of an alternate event log file"}));
}

TEST_F(AelFiles, WhatIsNoRegularFileIsNotOpened) {
    ASSERT_EQ(mkfifo(directory_.file("kelta_alteventlogfifo").c_str(), 0600), 0);
    ASSERT_EQ(symlink("/nowhere", directory_.file("kelta_alteventloglink").c_str()), 0);
    EXPECT_EQ(verdicts(), (Verdicts{"fifo:deleted:empty", "link:deleted:empty"}));
}

TEST_F(AelFiles, OrderIsThatOfTheTimesAndOfStartupIds) {
    put("late", AelFile_t{}.bytes(), 2000);
    put("early", AelFile_t{}.bytes(), 500);
    put("s9", AelFile_t{.sequenceId = 9, .source = 18}.bytes(), 1000);
    put("s0x80000000", AelFile_t{.sequenceId = 0x80000000, .source = 18}.bytes(), 1000);
    put("s7", AelFile_t{.sequenceId = 7, .source = 18}.bytes(), 1000);
    EXPECT_EQ(verdicts(), (Verdicts{"early:stored", "s7:stored", "s9:stored", "s0x80000000:stored",
                                    "late:stored"}));
}

TEST_F(AelFiles, OnlyStoredFilesAreNumbered) {
    put("1", AelFile_t{}.bytes(), 1);
    put("2", AelFile_t{.checksumError = 1}.bytes(), 2);
    put("3", AelFile_t{}.bytes(), 3);
    std::vector<AelFile> all = files();
    ASSERT_EQ(all.size(), 3U);
    EXPECT_EQ(all[0].order, 1U);
    EXPECT_EQ(all[1].order, std::nullopt);
    EXPECT_EQ(all[2].order, 2U);
}

TEST_F(AelFiles, NoDirectoryIsAnError) {
    EXPECT_THROW(sources::readAelDirectory(directory_.file("none")), std::system_error);
}
