#include "altEventLog.h"

#include "allocations.h"
#include "failing_files.h"
#include "lib_test_support.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <vector>

namespace {

class AltEventLog : public testing::Test {
  protected:
    AltEventLog() {
        wallClock = {0x60000001, 999999};
        setText(params.chassisSN, "ENC-0001");
        setText(params.serialStr, "BLADE-42");
        params.slotId = 0x01020304;
        useDirectory(directory.path());
        event(5, 3);
        memcpy(message + 152, "abc", 3);
    }

    static void setText(U8_t (&field)[64], const std::string& text) {
        memset(field, 0, sizeof(field));
        memcpy(field, text.data(), std::min(text.size(), sizeof(field)));
    }
    void useDirectory(const std::string& path) {
        memset(params.nvramDirectory, 0, sizeof(params.nvramDirectory));
        memcpy(params.nvramDirectory, path.data(), std::min<size_t>(path.size(), 128));
    }
    /** An event whose every field is set, those too that the writer must not take over. */
    void event(U8_t source, U16_t length) {
        memset(message, 'x', sizeof(message));
        EmpEvLogHeader_t& header = reinterpret_cast<EmpEvLogMsg_t*>(message)->evLogHdr;
        header.evSequenceId = 0x0A0B0C0D;
        header.evStructLength = length;
        header.evSource = source;
        header.evType = 3;
        header.evCategory = 2;
        header.evIdVersion = 7;
        header.evId = 0x1234;
    }
    S32_t write() { return altEventLogM(reinterpret_cast<EmpEvLogMsg_t*>(message), &params); }
    /** Writes without a word on either output. */
    S32_t writeSilently() {
        S32_t status = -1;
        std::string output;
        std::string errors = errorsOf([&] { output = outputOf([&] { status = write(); }); });
        EXPECT_EQ(output, "");
        EXPECT_EQ(errors, "");
        return status;
    }
    std::vector<std::string> files() {
        std::vector<std::string> names;
        if (std::filesystem::exists(directory / "aelfiles")) {
            for (const auto& entry : std::filesystem::directory_iterator(directory / "aelfiles")) {
                names.push_back(entry.path().string());
            }
        }
        return names;
    }
    std::string onlyFile() {
        std::vector<std::string> names = files();
        EXPECT_EQ(names.size(), 1U);
        return names.empty() ? "" : readFile(names[0]);
    }
    void expectAbort(U8_t source, U16_t length, const std::string& line) {
        event(source, length);
        ChildEnd end = runInChild([&] { write(); });
        EXPECT_TRUE(end.diedOf(SIGABRT)) << end.status;
        EXPECT_EQ(end.output, line);
        EXPECT_EQ(end.errors, "");
        EXPECT_TRUE(files().empty());
    }

    TempDirectory directory;
    MPU_PARAMS_t params = {};
    U8_t message[4064];
};

std::string zeros(size_t count) {
    return std::string(count, '\0');
}

const std::string expectedFile =
    std::string("\xB6\x8F\x01\x00", 4) + // signature, version, reserved
    std::string("\x00\x79\x98\xD1", 4) + // checksum
    "ENC-0001" + zeros(56) +             // enclosure
    "BLADE-42" + zeros(56) +             // blade
    std::string("\x01\x02\x03\x04", 4) + // slot
    zeros(4) +                           // instance
    zeros(4) +                           // sequence id
    std::string("\x60\x00\x00\x01", 4) + // time
    std::string("\x00\x03", 2) +         // length
    std::string("\x05\x03\x02\x07", 4) + // source, type, category, id version
    std::string("\x12\x34", 2) +         // id
    "abc";

} // namespace

TEST_F(AltEventLog, FileHoldsTheRecordByteForByte) {
    EXPECT_EQ(writeSilently(), 0);
    EXPECT_EQ(onlyFile(), expectedFile);
}

TEST_F(AltEventLog, TimeIsRightAfter2038) {
    wallClock = {static_cast<time_t>(0x83AA7E80), 0}; // 2040-01-01
    EXPECT_EQ(writeSilently(), 0);
    EXPECT_EQ(onlyFile().substr(148, 4), "\x83\xAA\x7E\x80");
}

TEST_F(AltEventLog, FileIsNamedAfterPrefixAndProcessAndIsPrivate) {
    EXPECT_EQ(writeSilently(), 0);
    ASSERT_EQ(files().size(), 1U);
    std::string prefix = directory / "aelfiles/kelta_alteventlog" + std::to_string(getpid()) + ".";
    EXPECT_EQ(files()[0].substr(0, prefix.size()), prefix);
    EXPECT_EQ(files()[0].size(), prefix.size() + 6);
    struct stat status;
    ASSERT_EQ(stat(files()[0].c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(AltEventLog, SuccessIsOneWriteOneFsyncOneClose) {
    ASSERT_EQ(mkdir((directory / "aelfiles").c_str(), 0700), 0);
    failingMkdir.calls = failingWrite.calls = failingFsync.calls = closeCalls = 0;
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(failingMkdir.calls, 0);
    EXPECT_EQ(failingWrite.calls, 1);
    EXPECT_EQ(failingFsync.calls, 1);
    EXPECT_EQ(closeCalls, 1);
}

TEST_F(AltEventLog, SuccessAllocatesNothing) {
    EXPECT_GT(allocationsOf([] { free(strdup("counted")); }), 0);
    EXPECT_EQ(allocationsOf([&] { write(); }), 0);
    EXPECT_EQ(onlyFile(), expectedFile);
}

TEST_F(AltEventLog, Data3848BytesLongIsWritten) {
    event(5, 3848);
    EXPECT_EQ(writeSilently(), 0);
    std::string file = onlyFile();
    ASSERT_EQ(file.size(), 4008U);
    EXPECT_EQ(file.substr(152, 2), "\x0F\x08");
    EXPECT_EQ(file.substr(160), std::string(3848, 'x'));
}

TEST_F(AltEventLog, Data1ByteLongIsWritten) {
    event(5, 1);
    EXPECT_EQ(writeSilently(), 0);
    EXPECT_EQ(onlyFile().size(), 161U);
}

TEST_F(AltEventLog, ShorterEventShowsNothingOfALongerOne) {
    event(5, 3848);
    EXPECT_EQ(write(), 0);
    std::filesystem::remove_all(directory / "aelfiles");
    event(5, 3);
    memcpy(message + 152, "abc", 3);
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(onlyFile(), expectedFile);
}

TEST_F(AltEventLog, Data3849BytesLongAborts) {
    expectAbort(7, 3849,
                "altEventLogM(): Invalid Event Structure = [7] length by calling "
                "Bug-Check function!!!\n");
}

TEST_F(AltEventLog, NoDataAborts) {
    expectAbort(34, 0,
                "altEventLogM(): Invalid Event Structure = [34] length by calling "
                "Bug-Check function!!!\n");
}

TEST_F(AltEventLog, LargestLengthAborts) {
    expectAbort(0, 65535,
                "altEventLogM(): Invalid Event Structure = [0] length by calling "
                "Bug-Check function!!!\n");
}

TEST_F(AltEventLog, Source34IsWritten) {
    event(34, 3);
    EXPECT_EQ(writeSilently(), 0);
    EXPECT_EQ(onlyFile()[154], 34);
}

TEST_F(AltEventLog, Source35Aborts) {
    expectAbort(35, 3,
                "altEventLogM(): Un-recognized Requestor [35] calling Bug-Check "
                "function!!!\n");
}

TEST_F(AltEventLog, SourceIsCheckedBeforeTheLength) {
    expectAbort(255, 0,
                "altEventLogM(): Un-recognized Requestor [255] calling Bug-Check "
                "function!!!\n");
}

TEST_F(AltEventLog, Source18KeepsItsSequenceId) {
    event(18, 3);
    EXPECT_EQ(writeSilently(), 0);
    EXPECT_EQ(onlyFile().substr(140, 8), zeros(4) + "\x0A\x0B\x0C\x0D");
}

TEST_F(AltEventLog, OtherSourcesLoseTheirSequenceId) {
    for (U8_t source : {U8_t{17}, U8_t{19}, U8_t{27}}) {
        event(source, 3);
        EXPECT_EQ(write(), 0);
        EXPECT_EQ(onlyFile().substr(140, 8), zeros(8));
        std::filesystem::remove_all(directory / "aelfiles");
    }
}

TEST_F(AltEventLog, TextsWithoutANulKeep63Bytes) {
    setText(params.chassisSN, std::string(64, 'c'));
    setText(params.serialStr, std::string(64, 's'));
    EXPECT_EQ(writeSilently(), 0);
    EXPECT_EQ(onlyFile().substr(8, 128),
              std::string(63, 'c') + zeros(1) + std::string(63, 's') + zeros(1));
}

TEST_F(AltEventLog, BytesBehindATextsNulAreNotCopied) {
    setText(params.serialStr, std::string("B\0hidden", 8));
    EXPECT_EQ(writeSilently(), 0);
    EXPECT_EQ(onlyFile().substr(72, 64), "B" + zeros(63));
}

TEST_F(AltEventLog, TwoCallsMakeTwoFiles) {
    EXPECT_EQ(writeSilently(), 0);
    EXPECT_EQ(writeSilently(), 0);
    ASSERT_EQ(files().size(), 2U);
    EXPECT_EQ(readFile(files()[0]), expectedFile);
    EXPECT_EQ(readFile(files()[1]), expectedFile);
}

TEST_F(AltEventLog, NoParameterBlockIsASilentSuccessWhateverTheEvent) {
    event(255, 0);
    S32_t status = -1;
    EXPECT_EQ(outputOf([&] {
                  status = altEventLogM(reinterpret_cast<EmpEvLogMsg_t*>(message), nullptr);
              }),
              "altEventLogM(): AEL File not created for Requestor [255] b/s MPU Parameters memory "
              "not initialized\n");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(failingMkstemp.calls, 0);
}

TEST_F(AltEventLog, DirectoryIsMadeUnderTheUmask) {
    mode_t old = umask(027);
    EXPECT_EQ(write(), 0);
    umask(old);
    struct stat status;
    ASSERT_EQ(stat((directory / "aelfiles").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0750U);
}

TEST_F(AltEventLog, DirectoryThatCannotBeMade) {
    useDirectory("/nowhere/at/all");
    S32_t status = -1;
    EXPECT_EQ(errorsOf([&] {
                  EXPECT_EQ(outputOf([&] { status = write(); }),
                            "openAELFileFd(): Unable to make directory /nowhere/at/all/aelfiles\n");
              }),
              "");
    EXPECT_EQ(status, 10001);
}

TEST_F(AltEventLog, DirectoryMadeByAnotherProcessMeanwhileIsUsed) {
    ASSERT_EQ(mkdir((directory / "aelfiles").c_str(), 0700), 0);
    failingAccess.failNext(ENOENT);
    EXPECT_EQ(writeSilently(), 0);
    EXPECT_EQ(onlyFile(), expectedFile);
}

TEST_F(AltEventLog, DirectoryThatStaysUnwritable) {
    ASSERT_EQ(mkdir((directory / "aelfiles").c_str(), 0500), 0);
    failingAccess.failAll(EACCES);
    S32_t status = -1;
    EXPECT_EQ(outputOf([&] { status = write(); }),
              "openAELFileFd(): Unable to make directory " + (directory / "aelfiles") + "\n");
    EXPECT_EQ(status, 10001);
}

TEST_F(AltEventLog, DirectoryTextWithoutANulIsBounded) {
    std::string path = "/" + std::string(127, 'n');
    useDirectory(path);
    memset(params.logDirectory, 'L', sizeof(params.logDirectory));
    S32_t status = -1;
    EXPECT_EQ(outputOf([&] { status = write(); }),
              "openAELFileFd(): Unable to make directory " + path + "/aelfiles\n");
    EXPECT_EQ(status, 10001);
}

TEST_F(AltEventLog, PathOf107CharactersIsUsed) {
    size_t behind =
        std::string("/aelfiles/kelta_alteventlog.XXXXXX").size() + std::to_string(getpid()).size();
    std::string deep = directory.path() + "/";
    deep += std::string(107 - behind - deep.size(), 'd');
    ASSERT_EQ(mkdir(deep.c_str(), 0700), 0);
    useDirectory(deep);
    EXPECT_EQ(writeSilently(), 0);
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(deep + "/aelfiles")) {
        names.push_back(entry.path().string());
    }
    ASSERT_EQ(names.size(), 1U);
    EXPECT_EQ(names[0].size(), 107U);
}

TEST_F(AltEventLog, PathOf108CharactersIsRefused) {
    std::string name = "/aelfiles/kelta_alteventlog" + std::to_string(getpid()) + ".XXXXXX";
    std::string deep = directory.path() + "/";
    deep += std::string(108 - name.size() - deep.size(), 'd');
    ASSERT_EQ(mkdir(deep.c_str(), 0700), 0);
    useDirectory(deep);
    S32_t status = -1;
    EXPECT_EQ(errorsOf([&] { status = write(); }), "openAELFileFd(): Unable to open " +
                                                       (deep + name).substr(0, 107) +
                                                       "\nopenAELFileFd(): File name too long\n");
    EXPECT_EQ(status, 10001);
    EXPECT_EQ(failingMkstemp.calls, 0);
}

TEST_F(AltEventLog, FileThatCannotBeMade) {
    failingMkstemp.failNext(EMFILE);
    S32_t status = -1;
    EXPECT_EQ(errorsOf([&] { status = write(); }),
              "openAELFileFd(): Unable to open " + (directory / "aelfiles/kelta_alteventlog") +
                  std::to_string(getpid()) + ".XXXXXX\nopenAELFileFd(): Too many open files\n");
    EXPECT_EQ(status, 10001);
    EXPECT_EQ(failingWrite.calls, 0);
}

TEST_F(AltEventLog, FailedSeekLeavesAnEmptyFile) {
    S32_t status = -1;
    failingLseek.failNext(EIO);
    int before = openDescriptors();
    EXPECT_EQ(errorsOf([&] { status = write(); }),
              "*** An error occurred seeking to end in Alternate Event Log\n"
              "    Input/output error\n");
    EXPECT_EQ(status, 10002);
    EXPECT_EQ(onlyFile(), "");
    EXPECT_EQ(failingWrite.calls, 0);
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(AltEventLog, FailedWriteIsNotSynced) {
    S32_t status = -1;
    failingWrite.failNext(ENOSPC);
    int before = openDescriptors();
    EXPECT_EQ(errorsOf([&] { status = write(); }),
              "*** An error occurred writing to Alternate Event Log\n"
              "    No space left on device\n");
    EXPECT_EQ(status, 10002);
    EXPECT_EQ(onlyFile(), "");
    EXPECT_EQ(failingFsync.calls, 0);
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(AltEventLog, ShortWriteLeavesAPartialFile) {
    S32_t status = -1;
    writeLimit = 162;
    std::string errors = errorsOf([&] { status = write(); });
    EXPECT_EQ(errors.substr(0, 57), "*** An error occurred writing to Alternate Event Log\n    ");
    EXPECT_EQ(status, 10002);
    EXPECT_EQ(onlyFile(), expectedFile.substr(0, 162));
    EXPECT_EQ(failingFsync.calls, 0);
}

TEST_F(AltEventLog, FailedFsyncIsStillSuccess) {
    failingFsync.failNext(EIO);
    EXPECT_EQ(writeSilently(), 0);
    EXPECT_EQ(onlyFile(), expectedFile);
}

TEST_F(AltEventLog, OpenGivesAnEmptyFileForReadingAndWriting) {
    int fd = openAELFileFd(&params);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(lseek(fd, 0, SEEK_END), 0);
    close(fd);
    EXPECT_EQ(onlyFile(), "");
}

TEST_F(AltEventLog, LastActExitsWithItsValue) {
    ChildEnd end =
        runInChild([&] { altEventLog(reinterpret_cast<EmpEvLogMsg_t*>(message), &params, 3); });
    EXPECT_TRUE(end.exitedWith(3)) << end.status;
    EXPECT_EQ(end.output, "altEventLog(): Exit with value = [3]\n");
    EXPECT_EQ(onlyFile(), expectedFile);
}

TEST_F(AltEventLog, LastActIgnoresTheResult) {
    useDirectory("/nowhere");
    ChildEnd end =
        runInChild([&] { altEventLog(reinterpret_cast<EmpEvLogMsg_t*>(message), &params, -2); });
    EXPECT_TRUE(end.exitedWith(254)) << end.status;
    EXPECT_EQ(end.output, "openAELFileFd(): Unable to make directory /nowhere/aelfiles\n"
                          "altEventLog(): Exit with value = [-2]\n");
}
