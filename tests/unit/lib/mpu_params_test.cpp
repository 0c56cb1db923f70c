#include "mpu_params.h"

#include "failing_segments.h"
#include "lib_test_support.h"

#include <cerrno>
#include <cstring>

namespace {

/** A segment of raw bytes, made without the library. */
class Params : public testing::Test {
  protected:
    int makeSegment(size_t size, const std::string& bytes) {
        int id = shmget(key, size, IPC_CREAT | IPC_EXCL | 0600);
        auto* block = static_cast<char*>(shmat(id, nullptr, 0));
        bytes.copy(block, bytes.size());
        shmdt(block);
        return id;
    }
    std::string blockOfVersion(U8_t version) {
        std::string bytes(744, '\0');
        bytes[3] = static_cast<char>(version);
        bytes[8] = 0x12;
        bytes[11] = 0x34;
        return bytes;
    }

    PrivateKey key;
};

} // namespace

TEST_F(Params, AttachGivesTheBlockAndItsId) {
    int id = makeSegment(744, blockOfVersion(15));
    int shmid = 0;
    MPU_PARAMS_t* block = nullptr;
    EXPECT_EQ(errorsOf([&] { block = MPU_getMpuParamsAndShmid(&shmid, key); }), "");
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(shmid, id);
    EXPECT_EQ(U32_t{block->version}, 15U);
    EXPECT_EQ(U32_t{block->slotId}, 0x12000034U);
    EXPECT_EQ(pMpuParams, block);
}

TEST_F(Params, AttachWithoutIdGivesTheBlockToo) {
    makeSegment(744, blockOfVersion(15));
    MPU_PARAMS_t* block = MPU_getMpuParams(key);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(pMpuParams, block);
}

TEST_F(Params, BlockIsMappedReadOnly) {
    makeSegment(744, blockOfVersion(15));
    ChildEnd end = runInChild([&] {
        signal(SIGSEGV, SIG_DFL);
        MPU_PARAMS_t* block = MPU_getMpuParams(key);
        block->slotId = 1;
    });
    EXPECT_TRUE(end.diedOf(SIGSEGV)) << end.status;
}

TEST_F(Params, Version14PrintsBothLinesAndDetaches) {
    makeSegment(744, blockOfVersion(14));
    int shmid = 0;
    shmdtCalls = 0;
    EXPECT_EQ(errorsOf([&] { EXPECT_EQ(MPU_getMpuParamsAndShmid(&shmid, key), nullptr); }),
              "Error with shared memory area.\n"
              "  Expected version 15, attached to version 14.\n");
    EXPECT_EQ(shmid, -1);
    EXPECT_EQ(pMpuParams, nullptr);
    EXPECT_EQ(shmdtCalls, 1);
}

TEST_F(Params, LittleEndianVersionIsAForeignVersion) {
    std::string bytes = blockOfVersion(0);
    bytes[0] = 15;
    makeSegment(744, bytes);
    EXPECT_EQ(errorsOf([&] { EXPECT_EQ(MPU_getMpuParams(key), nullptr); }),
              "Error with shared memory area.\n"
              "  Expected version 15, attached to version 251658240.\n");
}

TEST_F(Params, HighVersionPrintsNegative) {
    std::string bytes = blockOfVersion(0);
    bytes[0] = static_cast<char>(0x80);
    makeSegment(744, bytes);
    EXPECT_EQ(errorsOf([&] { EXPECT_EQ(MPU_getMpuParams(key), nullptr); }),
              "Error with shared memory area.\n"
              "  Expected version 15, attached to version -2147483648.\n");
}

TEST_F(Params, MissingBlockPrintsTheReason) {
    int shmid = 0;
    EXPECT_EQ(errorsOf([&] { EXPECT_EQ(MPU_getMpuParamsAndShmid(&shmid, key), nullptr); }),
              "Error opening the MPU shared memory area.\n"
              "   No such file or directory\n");
    EXPECT_EQ(shmid, -1);
}

TEST_F(Params, SegmentOf743BytesIsRefused) {
    makeSegment(743, "");
    EXPECT_EQ(errorsOf([&] { EXPECT_EQ(MPU_getMpuParams(key), nullptr); }),
              "Error opening the MPU shared memory area.\n"
              "   Invalid argument\n");
}

TEST_F(Params, FailedMappingPrintsTheReason) {
    makeSegment(744, blockOfVersion(15));
    failingShmat.failNext(EACCES);
    int shmid = 0;
    EXPECT_EQ(errorsOf([&] { EXPECT_EQ(MPU_getMpuParamsAndShmid(&shmid, key), nullptr); }),
              "Error mapping the MPU shared memory area to virtual memory.\n"
              "   Permission denied\n");
    EXPECT_EQ(shmid, -1);
}

TEST_F(Params, LaterFailureForgetsTheEarlierBlock) {
    makeSegment(744, blockOfVersion(15));
    ASSERT_NE(MPU_getMpuParams(key), nullptr);
    failingShmget.failNext(EACCES);
    EXPECT_EQ(errorsOf([&] { EXPECT_EQ(MPU_getMpuParams(key), nullptr); }),
              "Error opening the MPU shared memory area.\n"
              "   Permission denied\n");
    EXPECT_EQ(pMpuParams, nullptr);
}

TEST_F(Params, CmapAttachIsReadWrite) {
    int id = makeSegment(52, "");
    int shmid = 0;
    CmapParams_t* block = nullptr;
    EXPECT_EQ(errorsOf([&] { block = MPU_getCmapParamsAndShmid(&shmid, key); }), "");
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(shmid, id);
    EXPECT_EQ(pCmapParams, block);
    block->cmapState = 3;
    EXPECT_EQ(MPU_getCmapParams(key)->cmapState, 3);
}

TEST_F(Params, MissingCmapPrintsTheReason) {
    int shmid = 0;
    EXPECT_EQ(errorsOf([&] { EXPECT_EQ(MPU_getCmapParamsAndShmid(&shmid, key), nullptr); }),
              "Error opening the CMAP shared memory area.\n"
              "   No such file or directory\n");
    EXPECT_EQ(shmid, -1);
    EXPECT_EQ(pCmapParams, nullptr);
}

TEST_F(Params, FailedCmapMappingPrintsTheReason) {
    makeSegment(52, "");
    failingShmat.failNext(ENOMEM);
    EXPECT_EQ(errorsOf([&] { EXPECT_EQ(MPU_getCmapParams(key), nullptr); }),
              "Error mapping the CMAP shared memory area to virtual memory.\n"
              "   Cannot allocate memory\n");
    EXPECT_EQ(pCmapParams, nullptr);
}
