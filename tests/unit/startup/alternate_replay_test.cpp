#include "startup/alternate_replay.h"

#include "ael_file.h"
#include "dying_child.h"
#include "fixed_time_stamp.h"
#include "mmsg.h"
#include "startup/ael_file_list.h"
#include "state/control.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sys/stat.h>
#include <vector>

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

/** The name under which the replay speaks. */
#define P "empProcessAlternateEventLogFile(): "

namespace {

/** Messages as the dispatcher saw them: 216 bytes and the data that the body announces. */
std::vector<std::string> dispatched;
std::function<void()> duringDispatch;

/** The directory's order is the test's: names ascending or descending. */
bool descending;
std::vector<struct dirent> listed;
size_t nextListed;
int readdirError;
std::string hiddenFrom;  ///< text in the path for which a call fails
std::string failingCall; ///< "stat", "open", "read", "calloc", "opendir"
int openFlags;

bool fails(const char* call, const char* path) {
    return failingCall == call && std::string(path).find(hiddenFrom) != std::string::npos;
}

} // namespace

extern "C" void __wrap__Z19empProcEventMmsgMsgP6MMSG_s(MMSG_t* msg) {
    const char* bytes = reinterpret_cast<const char*>(msg);
    size_t length =
        static_cast<size_t>(static_cast<U8_t>(bytes[208]) << 8 | static_cast<U8_t>(bytes[209]));
    dispatched.emplace_back(bytes, 216 + length);
    printf("dispatch\n");
    if (duringDispatch) {
        duringDispatch();
    }
}

extern "C" DIR* __real_opendir(const char* name);
extern "C" DIR* __wrap_opendir(const char* name) {
    return failingCall == "opendir" ? nullptr : __real_opendir(name);
}

extern "C" struct dirent* __real_readdir64(DIR* directory);
extern "C" struct dirent* __wrap_readdir64(DIR* directory) {
    if (listed.empty()) {
        while (const struct dirent* found = __real_readdir64(directory)) {
            listed.insert(listed.end(), *found);
        }
        std::sort(listed.begin(), listed.end(), [](const auto& left, const auto& right) {
            int order = strcmp(left.d_name, right.d_name);
            return descending ? order > 0 : order < 0;
        });
    }
    if (nextListed < listed.size()) {
        EXPECT_EQ(errno, 0) << "a stale error would be taken for one of readdir";
        return &listed[nextListed++];
    }
    if (readdirError != 0) {
        errno = readdirError;
    }
    return nullptr;
}

extern "C" int __real_stat64(const char* path, struct stat* status);
extern "C" int __wrap_stat64(const char* path, struct stat* status) {
    if (fails("stat", path)) {
        errno = EOVERFLOW;
        return -1;
    }
    return __real_stat64(path, status);
}

extern "C" int __real_open64(const char* path, int flags);
extern "C" int __wrap_open64(const char* path, int flags) {
    openFlags = flags;
    if (fails("open", path)) {
        errno = EACCES;
        return -1;
    }
    return __real_open64(path, flags);
}

extern "C" ssize_t __real_read(int fd, void* to, size_t length);
extern "C" ssize_t __wrap_read(int fd, void* to, size_t length) {
    if (failingCall == "read") {
        errno = EIO;
        return -1;
    }
    return __real_read(fd, to, length);
}

extern "C" void* __real_calloc(size_t count, size_t size);
extern "C" void* __wrap_calloc(size_t count, size_t size) {
    if (failingCall == "calloc" && size == sizeof(EmpAelFileNameEntry_t)) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_calloc(count, size);
}

namespace {

MPU_PARAMS_t parameters;

class AlternateReplay : public testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/tmp/aelXXXXXX";
        nvram_ = mkdtemp(name);
        directory_ = nvram_ + "/aelfiles";
        fs::create_directory(directory_);
        memset(static_cast<void*>(&parameters), 0, sizeof(parameters));
        memcpy(parameters.nvramDirectory, nvram_.data(), nvram_.size());
        oMpuParams = &parameters;
        empControl.empDebug = 1;
        memset(empControl.empInMsg, 0xEE, sizeof(empControl.empInMsg));
    }
    void TearDown() override { fs::remove_all(nvram_); }

    std::string pathOf(const std::string& name) const { return directory_ + "/" + name; }

    void put(const std::string& name, const std::string& bytes, time_t mtime = 5000) const {
        std::ofstream(pathOf(name), std::ios::binary) << bytes;
        struct timespec times[2] = {{mtime, 0}, {mtime, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, pathOf(name).c_str(), times, 0), 0);
    }
    void putEvent(const std::string& name, const AelFile_t& file, time_t mtime = 5000) const {
        put(name, file.bytes(), mtime);
    }
    std::string replay() {
        testing::internal::CaptureStdout();
        empProcessAlternateEventLogFiles();
        std::string text = testing::internal::GetCapturedStdout();
        EXPECT_EQ(empAelFileNameList, nullptr);
        return text;
    }
    std::vector<std::string> left() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(directory_)) {
            names.push_back(entry.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    }
    /** The event ids in the order of their dispatch. */
    static std::vector<int> ids() {
        std::vector<int> result;
        for (const std::string& message : dispatched) {
            result.push_back(static_cast<U8_t>(message[214]) << 8 |
                             static_cast<U8_t>(message[215]));
        }
        return result;
    }
    std::string head() const {
        return stamped(P "AEL File Path = [" + directory_ + "].\n") + found(".") + found("..");
    }
    std::string found(const std::string& name) const {
        return stamped(P "Found one file [" + name + "] in directory [" + directory_ + "].\n");
    }
    /** The lines of a file whose header was read, up to its place in the list. */
    std::string collected(const std::string& name, int mtime, int tempId) const {
        return found(name) +
               stamped(P "AEL File [" + pathOf(name) + "], st_mtime = [" + std::to_string(mtime) +
                       "].\n" P "Working-on Startup AEL with Temp SeqId [" +
                       std::to_string(tempId) + "].\n");
    }
    std::string first(const std::string& name) const {
        return stamped(P "AEL File [" + pathOf(name) + "], 1st file on list.\n");
    }
    std::string behind(const std::string& name, const std::string& previous) const {
        return stamped(P "Place working-on element [" + pathOf(name) +
                       "] in back of\n" P "Previous element [" + pathOf(previous) + "].\n");
    }
    std::string removed(const std::string& name) const {
        return stamped(P "Remove AEL File [" + pathOf(name) + "].\n");
    }

    std::string nvram_;
    std::string directory_;
};

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

std::string cannotRead(const std::string& path, int size) {
    return stamped(P "Can't read Event Entry from AEL File [" + path + "] with size [" +
                   std::to_string(size) + "].\n");
}

TEST_F(AlternateReplay, DirectoryWithAGoodNameCountsAsShortWithSizeZero) {
    fs::create_directories(pathOf("kelta_alteventlog1/inside"));
    struct stat status = {};
    ASSERT_EQ(__real_stat64(pathOf("kelta_alteventlog1").c_str(), &status), 0);
    ASSERT_NE(status.st_size, 0);
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
