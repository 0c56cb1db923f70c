#include "failing_segments.h"
#include "lib_test_support.h"
#include "mpu_params.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

class Create : public testing::Test {
  protected:
    Create() {
        unsetenv("NONXML_FILE");
        unsetenv("CONFIG_FILE");
        unsetenv("PROJDIR");
    }

    /** A valid image in which every byte behind the version tells its offset. */
    static std::string image() {
        std::string bytes(744, '\0');
        for (size_t i = 0; i < bytes.size(); i++) {
            bytes[i] = static_cast<char>(i * 7 + 1);
        }
        return bytes.replace(0, 4, std::string("\0\0\0\x0F", 4));
    }
    /** Writes a file and names it in the environment. */
    std::string useFile(const char* variable, const std::string& bytes) {
        std::string path = directory / "source";
        writeFile(path, bytes);
        setenv(variable, path.c_str(), 1);
        return path;
    }
    /** Creation fails: no segment, no id, no block, and these lines. */
    void expectFailure(const std::string& lines) {
        shmid = 77;
        failingShmget.calls = 0;
        pMpuParams = reinterpret_cast<MPU_PARAMS_t*>(&shmid);
        EXPECT_EQ(errorsOf([&] { EXPECT_EQ(MPU_createMpuParams(&shmid, key), nullptr); }), lines);
        EXPECT_EQ(shmid, -1);
        EXPECT_EQ(pMpuParams, nullptr);
    }
    MPU_PARAMS_t* expectSuccess(const std::string& lines) {
        MPU_PARAMS_t* block = nullptr;
        EXPECT_EQ(errorsOf([&] { block = MPU_createMpuParams(&shmid, key); }), lines);
        EXPECT_NE(block, nullptr);
        EXPECT_EQ(pMpuParams, block);
        EXPECT_EQ(shmid, key.segment());
        EXPECT_NE(shmid, -1);
        return block;
    }
    std::string bytesOf(const MPU_PARAMS_t* block) {
        return {reinterpret_cast<const char*>(block), 744};
    }
    shmid_ds statusOf(int id) {
        shmid_ds status = {};
        shmctl(id, IPC_STAT, &status);
        return status;
    }

    TempDirectory directory;
    PrivateKey key;
    int shmid = 77;
};

} // namespace

TEST_F(Create, ImageStaysBigEndianInTheBlock) {
    useFile("CONFIG_FILE", image());
    MPU_PARAMS_t* block = expectSuccess("");
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(bytesOf(block), image());
    EXPECT_EQ(statusOf(shmid).shm_segsz, 744U);
    EXPECT_EQ(statusOf(shmid).shm_perm.mode & 0777, 0600);
    block->slotId = 9; // attached read-write
    EXPECT_EQ(bytesOf(block).substr(8, 4), std::string("\0\0\0\x09", 4));
}

TEST_F(Create, TextFileFillsAZeroedBlockAndIsClosed) {
    useFile("NONXML_FILE", "Version=15\nSlot=2\nSerialNumber=B2\nCacheValid\nWrong\n");
    auto before = openDescriptors();
    MPU_PARAMS_t* block =
        expectSuccess("+++ Warning: Unrecognized flag in configuration file: Wrong\n");
    ASSERT_NE(block, nullptr);
    std::string expected(744, '\0');
    expected[3] = 15;
    expected[7] = 0x10;
    expected[11] = 2;
    expected.replace(120, 2, "B2");
    EXPECT_EQ(bytesOf(block), expected);
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(Create, TextFileComesBeforeTheImage) {
    useFile("CONFIG_FILE", image());
    setenv("NONXML_FILE", "/dev/null", 1);
    MPU_PARAMS_t* block = expectSuccess("");
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(bytesOf(block), std::string(744, '\0'));
}

TEST_F(Create, MissingTextFileIsNotReplacedByTheImage) {
    useFile("CONFIG_FILE", image());
    setenv("NONXML_FILE", "/nowhere/x", 1);
    expectFailure("Error: Unable to open /nowhere/x.\n"
                  "       No such file or directory\n");
    EXPECT_EQ(key.segment(), -1);
}

TEST_F(Create, NoSourceAtAll) {
    expectFailure("The environment variable: 'PROJDIR' is not defined!\n");
    EXPECT_EQ(failingShmget.calls, 0);
}

TEST_F(Create, ProjectDirectoryHoldsTheImage) {
    writeFile(directory / "configMpu.bin", image());
    setenv("PROJDIR", directory.path().c_str(), 1);
    MPU_PARAMS_t* block = expectSuccess("");
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(bytesOf(block), image());
}

TEST_F(Create, ProjectDirectoryOf125CharactersIsAccepted) {
    std::string deep = directory.path();
    deep += "/" + std::string(125 - deep.size() - 1, 'd');
    ASSERT_EQ(deep.size(), 125U);
    ASSERT_EQ(mkdir(deep.c_str(), 0700), 0);
    writeFile(deep + "/configMpu.bin", image());
    setenv("PROJDIR", deep.c_str(), 1);
    MPU_PARAMS_t* block = expectSuccess("");
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(bytesOf(block), image());
}

TEST_F(Create, ProjectDirectoryOf126CharactersIsRefused) {
    setenv("PROJDIR", std::string(126, 'd').c_str(), 1);
    expectFailure("Fully qualified path+name for the Configuration file exceeds 139 characters.\n");
}

TEST_F(Create, ConfigFileHasNoLengthLimit) {
    std::string path(200, 'f');
    setenv("CONFIG_FILE", path.c_str(), 1);
    expectFailure("Unable to stat " + path + ".\n");
}

TEST_F(Create, ImageOf743BytesIsRefusedBeforeAnySegment) {
    std::string path = useFile("CONFIG_FILE", image().substr(0, 743));
    expectFailure("File size of " + path + " does not match MPU Parameters structure size\n" +
                  "  File size = 743, structure size = 744\n");
    EXPECT_EQ(failingShmget.calls, 0);
}

TEST_F(Create, ImageOf745BytesIsRefused) {
    std::string path = useFile("CONFIG_FILE", image() + "x");
    expectFailure("File size of " + path + " does not match MPU Parameters structure size\n" +
                  "  File size = 745, structure size = 744\n");
}

TEST_F(Create, ImageThatCannotBeOpened) {
    std::string path = useFile("CONFIG_FILE", image());
    failingOpen.failNext(EACCES);
    expectFailure("Unabled to open Configuration input file: '" + path + "'\n");
    EXPECT_EQ(failingShmget.calls, 0);
}

TEST_F(Create, DescriptorOfTheImageStaysOpen) {
    useFile("CONFIG_FILE", image());
    auto before = openDescriptors();
    expectSuccess("");
    EXPECT_EQ(openDescriptors(), before + 1);
}

TEST_F(Create, ImageOfVersion14IsRemovedAgain) {
    std::string bytes = image();
    bytes[3] = 14;
    std::string path = useFile("CONFIG_FILE", bytes);
    expectFailure("Configuration file '" + path + "' contains version 0x0000000E data, but " +
                  "version 0x0000000F data is expected.\n");
    EXPECT_EQ(key.segment(), -1);
    EXPECT_EQ(shmdtCalls, 1);
}

TEST_F(Create, UnconvertedVersionPrintsBigEndian) {
    std::string path =
        useFile("CONFIG_FILE", image().replace(0, 4, std::string("\x0F\0\0\xAB", 4)));
    expectFailure("Configuration file '" + path + "' contains version 0x0F0000AB data, but " +
                  "version 0x0000000F data is expected.\n");
}

TEST_F(Create, FailedReadOfTheImage) {
    std::string path = useFile("CONFIG_FILE", image());
    readLimit = -1;
    expectFailure("\nUnable to read the configuration data from file: '" + path + "'\n");
    EXPECT_EQ(key.segment(), -1);
}

TEST_F(Create, ReadsOf0To4BytesSayTheirCount) {
    std::string path = useFile("CONFIG_FILE", image());
    for (int count : {0, 1, 4}) {
        readLimit = count;
        expectFailure(std::to_string(count) + " bytes read from Configuration file '" + path +
                      "', 744 expected.\n");
        EXPECT_EQ(key.segment(), -1);
    }
}

TEST_F(Create, ShortReadWithTheRightVersionSaysItsCount) {
    std::string path = useFile("CONFIG_FILE", image());
    for (int count : {5, 743}) {
        readLimit = count;
        expectFailure(std::to_string(count) + " bytes read from Configuration file '" + path +
                      "', 744 expected.\n");
        EXPECT_EQ(key.segment(), -1);
    }
}

TEST_F(Create, ShortReadWithAWrongVersionSaysTheVersion) {
    std::string path = useFile("CONFIG_FILE", image().replace(0, 4, std::string(4, '\0')));
    readLimit = 5;
    expectFailure("Configuration file '" + path + "' contains version 0x00000000 data, but " +
                  "version 0x0000000F data is expected.\n");
}

TEST_F(Create, SegmentUnderTheKeyIsReplaced) {
    int old = shmget(key, 744, IPC_CREAT | 0600);
    auto* mapped = static_cast<char*>(shmat(old, nullptr, 0));
    memset(mapped, 0x5A, 744);
    useFile("NONXML_FILE", "Version=15\n");
    MPU_PARAMS_t* block =
        expectSuccess("\nError opening the MPU shared memory area.\n"
                      "Shared segment already existed.\nIt has successfully been removed and "
                      "recreated.\n\n");
    ASSERT_NE(block, nullptr);
    EXPECT_NE(shmid, old);
    EXPECT_EQ(bytesOf(block), std::string("\0\0\0\x0F", 4) + std::string(740, '\0'));
    EXPECT_EQ(mapped[0], 0x5A);
    shmdt(mapped);
}

TEST_F(Create, SmallerSegmentUnderTheKeyStays) {
    int old = shmget(key, 100, IPC_CREAT | 0600);
    useFile("NONXML_FILE", "Version=15\n");
    char exists[100];
    snprintf(exists, sizeof(exists), "Shared segment already exists (key=%d (0x%08X)).\n",
             static_cast<int>(key), static_cast<unsigned>(key));
    expectFailure(std::string("\nError opening the MPU shared memory area.\n") + exists +
                  "\nError mapping the MPU shared memory area to virtual memory.\n");
    EXPECT_EQ(key.segment(), old);
}

TEST_F(Create, FailedCreationSaysWhyAndStops) {
    useFile("NONXML_FILE", "Version=15\n");
    failingShmget.failAt = 1;
    failingShmget.error = ENOSPC;
    expectFailure("\nError opening the MPU shared memory area.\n"
                  "   No space left on device\n");
    EXPECT_EQ(failingShmat.calls, 0);
}

TEST_F(Create, FailedMappingRemovesTheSegment) {
    useFile("NONXML_FILE", "Version=15\n");
    failingShmat.failNext(EACCES);
    expectFailure("\nError mapping the MPU shared memory area to virtual memory.\n");
    EXPECT_EQ(key.segment(), -1);
}

TEST_F(Create, DeletionRemovesTheSegmentAndKeepsThePointer) {
    useFile("NONXML_FILE", "Version=15\n");
    MPU_PARAMS_t* block = expectSuccess("");
    EXPECT_EQ(MPU_deleteMpuParams(shmid), 0);
    EXPECT_EQ(key.segment(), -1);
    EXPECT_EQ(pMpuParams, block);
    EXPECT_EQ(MPU_deleteMpuParams(-1), -1);
}

// --- The CMAP block ------------------------------------------------------------------------------

TEST_F(Create, CmapIsZeroedAndItsLockIsFree) {
    CmapParams_t* block = nullptr;
    EXPECT_EQ(errorsOf([&] { block = MPU_createCmapParams(&shmid, key); }), "");
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(pCmapParams, block);
    EXPECT_EQ(shmid, key.segment());
    EXPECT_EQ(statusOf(shmid).shm_segsz, 52U);
    EXPECT_EQ(block->updateLock.lock, 1);
    EXPECT_EQ(block->cmapState | block->rcpState | block->batteryPolicy | block->batteryState, 0);
    EXPECT_EQ(block->_filler1, 0U);
    int value = -1;
    EXPECT_EQ(sem_getvalue(&block->batteryStateChangeSema, &value), 0);
    EXPECT_EQ(value, 0);
    EXPECT_EQ(pthread_mutex_trylock(&block->smisIndicationCriticalSection), 0);
    EXPECT_EQ(pthread_mutex_unlock(&block->smisIndicationCriticalSection), 0);
    EXPECT_EQ(MPU_deleteCmapParams(shmid), 0);
    EXPECT_EQ(failingSemDestroy.calls, 1);
    EXPECT_EQ(failingMutexDestroy.calls, 1);
    EXPECT_EQ(key.segment(), -1);
    EXPECT_EQ(shmdtCalls, 0);
}

TEST_F(Create, CmapLayoutOfTheBoard) {
    if (sizeof(void*) != 4) {
        EXPECT_LE(sizeof(CmapParams_t), 4096U);
        return;
    }
    EXPECT_EQ(sizeof(CmapParams_t), 52U);
    EXPECT_EQ(offsetof(CmapParams_t, batteryStateChangeSema), 4U);
    EXPECT_EQ(offsetof(CmapParams_t, cmapState), 20U);
    EXPECT_EQ(offsetof(CmapParams_t, _filler1), 24U);
    EXPECT_EQ(offsetof(CmapParams_t, smisIndicationCriticalSection), 28U);
}

TEST_F(Create, CmapIsWritableByEveryone) {
    mode_t old = umask(0);
    MPU_createCmapParams(&shmid, key);
    umask(old);
    EXPECT_EQ(statusOf(shmid).shm_perm.mode & 0777, 0666);
}

TEST_F(Create, CmapUnderTheKeyIsReplaced) {
    int old = shmget(key, 52, IPC_CREAT | 0666);
    EXPECT_EQ(errorsOf([&] { EXPECT_NE(MPU_createCmapParams(&shmid, key), nullptr); }),
              "\nError creating the CMAP shared memory area.\n"
              "CMAP shared memory segment already existed.\nIt has successfully been removed and "
              "recreated.\n\n");
    EXPECT_NE(shmid, old);
    EXPECT_EQ(shmid, key.segment());
}

TEST_F(Create, SmallerCmapUnderTheKeyStays) {
    int old = shmget(key, 51, IPC_CREAT | 0666);
    char exists[100];
    snprintf(exists, sizeof(exists),
             "CMAP shared memory segment already exists (key=%d (0x%08X)).\n",
             static_cast<int>(key), static_cast<unsigned>(key));
    EXPECT_EQ(errorsOf([&] { EXPECT_EQ(MPU_createCmapParams(&shmid, key), nullptr); }),
              std::string("\nError creating the CMAP shared memory area.\n") + exists);
    EXPECT_EQ(shmid, -1);
    EXPECT_EQ(key.segment(), old);
}

TEST_F(Create, FailedCmapCreationSaysWhy) {
    failingShmget.failNext(ENOSPC);
    EXPECT_EQ(errorsOf([&] { EXPECT_EQ(MPU_createCmapParams(&shmid, key), nullptr); }),
              "\nError creating the CMAP shared memory area.\n"
              "   No space left on device\n");
    EXPECT_EQ(shmid, -1);
    EXPECT_EQ(pCmapParams, nullptr);
}

TEST_F(Create, FailedCmapMappingSaysWhy) {
    failingShmat.failNext(EACCES);
    EXPECT_EQ(errorsOf([&] { EXPECT_EQ(MPU_createCmapParams(&shmid, key), nullptr); }),
              "Failed to attached CMAP shared memory segment.\n"
              "   Permission denied\n");
    EXPECT_EQ(shmid, -1);
    EXPECT_EQ(pCmapParams, nullptr);
    EXPECT_EQ(shmget(key, 0, 0), -1); // the new segment is gone
}

TEST_F(Create, FailedSemaphoreEndsTheProcessWith8) {
    ChildEnd end = runInChild([&] {
        failingSemInit.failNext(ENOSYS);
        MPU_createCmapParams(&shmid, key);
    });
    EXPECT_TRUE(end.exitedWith(0x08)) << end.status;
    EXPECT_EQ(end.errors, "MPU_BUGCHECK() encountered: Function not implemented\n"
                          ": mpuSemaphore_Init(): init failure.\n");
}

TEST_F(Create, FailedMutexEndsTheProcessWith4) {
    ChildEnd end = runInChild([&] {
        failingMutexInit.failNext(EAGAIN);
        MPU_createCmapParams(&shmid, key);
    });
    EXPECT_TRUE(end.exitedWith(0x04)) << end.status;
    EXPECT_EQ(end.errors, "MPU_BUGCHECK() encountered: Resource temporarily unavailable\n"
                          ": mpuMutex_Init(): init failure.\n");
}

TEST_F(Create, SemaphoreThatCannotGoEndsTheProcessWith9) {
    ChildEnd end = runInChild([&] {
        MPU_createCmapParams(&shmid, key);
        failingSemDestroy.failNext(EINVAL);
        MPU_deleteCmapParams(shmid);
    });
    EXPECT_TRUE(end.exitedWith(0x09)) << end.status;
    EXPECT_EQ(end.errors, "MPU_BUGCHECK() encountered: Invalid argument\n"
                          ": mpuSemaphore_Done(): done failure.\n");
}

TEST_F(Create, MutexThatCannotGoEndsTheProcessWith5) {
    ChildEnd end = runInChild([&] {
        MPU_createCmapParams(&shmid, key);
        failingMutexDestroy.failNext(EBUSY);
        MPU_deleteCmapParams(shmid);
    });
    EXPECT_TRUE(end.exitedWith(0x05)) << end.status;
    EXPECT_EQ(end.errors, "MPU_BUGCHECK() encountered: Device or resource busy\n"
                          ": mpuMutex_Done(): done failure.\n");
}

TEST_F(Create, DeletionWithoutAttachmentOnlyRemoves) {
    int id = shmget(key, 52, IPC_CREAT | 0666);
    EXPECT_EQ(MPU_deleteCmapParams(id), 0);
    EXPECT_EQ(failingSemDestroy.calls, 0);
    EXPECT_EQ(failingMutexDestroy.calls, 0);
    EXPECT_EQ(key.segment(), -1);
}
