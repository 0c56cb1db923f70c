#include "mpu_params.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace mpu {

MPU_PARAMS_t* pMpuParams = nullptr;
CmapParams_t* pCmapParams = nullptr;

void mpuPrintError(int error) {
    fprintf(stderr, "   %s\n", strerror(error));
}

void* mpuMapSegment(int id, int flags) {
    void* block = shmat(id, nullptr, flags);
    return reinterpret_cast<intptr_t>(block) == -1 ? nullptr : block;
}

} // namespace mpu

using namespace mpu;

namespace {

void printWithError(const char* text) {
    int error = errno;
    fputs(text, stderr);
    mpuPrintError(error);
}

bool hasExpectedVersion(const MPU_PARAMS_t* block) {
    U32_t version = block->version;
    if (version == MPU_PARAMS_VERSION) {
        return true;
    }
    fprintf(stderr, "Error with shared memory area.\n");
    fprintf(stderr, "  Expected version %d, attached to version %d.\n",
            static_cast<int>(MPU_PARAMS_VERSION), static_cast<int>(version));
    return false;
}

} // namespace

MPU_PARAMS_t* MPU_getMpuParams(int key) {
    int discarded;
    return MPU_getMpuParamsAndShmid(&discarded, key);
}

MPU_PARAMS_t* MPU_getMpuParamsAndShmid(int* shmid, int key) {
    *shmid = -1;
    pMpuParams = nullptr;
    int id = shmget(key, MPU_PARAMS_SIZE, 0400);
    if (id < 0) {
        printWithError("Error opening the MPU shared memory area.\n");
        return nullptr;
    }
    void* block = mpuMapSegment(id, SHM_RDONLY);
    if (block == nullptr) {
        printWithError("Error mapping the MPU shared memory area to virtual memory.\n");
        return nullptr;
    }
    if (!hasExpectedVersion(static_cast<MPU_PARAMS_t*>(block))) {
        shmdt(block);
        return nullptr;
    }
    pMpuParams = static_cast<MPU_PARAMS_t*>(block);
    *shmid = id;
    return pMpuParams;
}

CmapParams_t* MPU_getCmapParams(int key) {
    int discarded;
    return MPU_getCmapParamsAndShmid(&discarded, key);
}

CmapParams_t* MPU_getCmapParamsAndShmid(int* shmid, int key) {
    *shmid = -1;
    pCmapParams = nullptr;
    int id = shmget(key, CMAP_PARAMS_SIZE, 0666);
    if (id < 0) {
        printWithError("Error opening the CMAP shared memory area.\n");
        return nullptr;
    }
    void* block = mpuMapSegment(id, 0);
    if (block == nullptr) {
        printWithError("Error mapping the CMAP shared memory area to virtual memory.\n");
        return nullptr;
    }
    pCmapParams = static_cast<CmapParams_t*>(block);
    *shmid = id;
    return pCmapParams;
}
