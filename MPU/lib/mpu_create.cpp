#include "mpu_params.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

using namespace mpu;

namespace {

// --- Where the contents of the parameter block come from -----------------------------------------

constexpr char CONFIG_FILE_NAME[] = "configMpu.bin";
constexpr size_t CONFIG_PATH_MAX = 139;

/** The open source of a new block: a text file, or a binary image with its path. */
struct Source_t {
    FILE* text = nullptr;
    int image = -1;
    const char* path = nullptr;
};

bool openText(Source_t& source, const char* path) {
    source.text = fopen(path, "r");
    if (source.text == nullptr) {
        int error = errno;
        fprintf(stderr, "Error: Unable to open %s.\n", path);
        fprintf(stderr, "       %s\n", strerror(error));
    }
    return source.text != nullptr;
}

/** The path of the binary image, in the environment or in a buffer of its own; NULL: none. */
const char* findImagePath() {
    static char path[CONFIG_PATH_MAX + 1];
    const char* whole = getenv("CONFIG_FILE");
    if (whole != nullptr) {
        return whole;
    }
    const char* directory = getenv("PROJDIR");
    if (directory == nullptr) {
        fprintf(stderr, "The environment variable: '%s' is not defined!\n", "PROJDIR");
        return nullptr;
    }
    if (strlen(directory) + (sizeof(CONFIG_FILE_NAME) - 1) + 1 > CONFIG_PATH_MAX) {
        fprintf(stderr,
                "Fully qualified path+name for the Configuration file exceeds %d characters.\n",
                static_cast<int>(CONFIG_PATH_MAX));
        return nullptr;
    }
    snprintf(path, sizeof(path), "%s/%s", directory, CONFIG_FILE_NAME);
    return path;
}

bool hasImageSize(const char* path) {
    // A 32-bit host's stat would fail on a file that is dated after 2038.
    struct statx status;
    if (statx(AT_FDCWD, path, 0, STATX_SIZE, &status) != 0) {
        fprintf(stderr, "Unable to stat %s.\n", path);
        return false;
    }
    if (status.stx_size != MPU_PARAMS_SIZE) {
        fprintf(stderr, "File size of %s does not match MPU Parameters structure size\n", path);
        fprintf(stderr, "  File size = %ld, structure size = %d\n",
                static_cast<long>(status.stx_size), static_cast<int>(MPU_PARAMS_SIZE));
        return false;
    }
    return true;
}

bool openImage(Source_t& source) {
    source.path = findImagePath();
    if (source.path == nullptr || !hasImageSize(source.path)) {
        return false;
    }
    // KEEP: this descriptor is never closed.
    source.image = open(source.path, O_RDONLY);
    if (source.image < 0) {
        fprintf(stderr, "Unabled to open Configuration input file: '%s'\n", source.path);
    }
    return source.image >= 0;
}

bool openSource(Source_t& source) {
    const char* text = getenv("NONXML_FILE");
    return text != nullptr ? openText(source, text) : openImage(source);
}

// --- Segments ------------------------------------------------------------------------------------

void printMpuExists(int key) {
    fprintf(stderr, "Shared segment already exists (key=%d (0x%08X)).\n", key,
            static_cast<unsigned>(key));
}

void printCmapExists(int key) {
    fprintf(stderr, "CMAP shared memory segment already exists (key=%d (0x%08X)).\n", key,
            static_cast<unsigned>(key));
}

/** A kind of segment, and what is said while one is created. */
struct SegmentKind_t {
    size_t size;
    int mode;
    const char* failed;
    const char* recreated;
    void (*printExists)(int key);
};

const SegmentKind_t mpuSegment = {
    MPU_PARAMS_SIZE, 0600, "\nError opening the MPU shared memory area.\n",
    "Shared segment already existed.\nIt has successfully been removed and recreated.\n\n",
    printMpuExists};
const SegmentKind_t cmapSegment = {
    CMAP_PARAMS_SIZE, 0666, "\nError creating the CMAP shared memory area.\n",
    "CMAP shared memory segment already existed.\nIt has successfully been removed and recreated.\n\n",
    printCmapExists};

int createSegment(const SegmentKind_t& kind, int key) {
    return shmget(key, kind.size, IPC_CREAT | IPC_EXCL | kind.mode);
}

/** Removes the segment that stands under a key and creates a new one; negative on failure. */
int recreateSegment(const SegmentKind_t& kind, int key) {
    // KEEP: looked up with the full size, so a smaller segment is not found and stays.
    int old = shmget(key, kind.size, kind.mode);
    if (old >= 0) {
        shmctl(old, IPC_RMID, nullptr);
    }
    int id = createSegment(kind, key);
    if (id < 0) {
        kind.printExists(key);
    } else {
        fputs(kind.recreated, stderr);
    }
    return id;
}

/**
 * A new segment under a key, also when one stands there.
 * @param isTaken receives whether an old one was there
 * @return its id; negative on failure
 */
int openNewSegment(const SegmentKind_t& kind, int key, bool& isTaken) {
    int id = createSegment(kind, key);
    if (id >= 0) {
        return id;
    }
    int error = errno;
    fputs(kind.failed, stderr);
    isTaken = error == EEXIST;
    if (isTaken) {
        return recreateSegment(kind, key);
    }
    mpuPrintError(error);
    return -1;
}

// --- Filling the parameter block -----------------------------------------------------------------

void printShortImage(const Source_t& source, ssize_t length) {
    fprintf(stderr, "%d bytes read from Configuration file '%s', %d expected.\n",
            static_cast<int>(length), source.path, static_cast<int>(MPU_PARAMS_SIZE));
}

/**
 * Reads the image into the block. The image and the block are both big-endian: nothing is
 * converted, on any host.
 */
bool readImage(MPU_PARAMS_t* block, const Source_t& source) {
    ssize_t length = read(source.image, block, MPU_PARAMS_SIZE);
    if (length < 0) {
        fprintf(stderr, "\nUnable to read the configuration data from file: '%s'\n", source.path);
        return false;
    }
    if (length <= static_cast<ssize_t>(sizeof(block->version))) {
        printShortImage(source, length);
        return false;
    }
    U32_t version = block->version;
    if (version != MPU_PARAMS_VERSION) {
        fprintf(
            stderr,
            "Configuration file '%s' contains version 0x%08X data, but version 0x%08X data is expected.\n",
            source.path, version, MPU_PARAMS_VERSION);
        return false;
    }
    if (length != static_cast<ssize_t>(MPU_PARAMS_SIZE)) {
        printShortImage(source, length);
        return false;
    }
    return true;
}

bool fillBlock(MPU_PARAMS_t* block, const Source_t& source) {
    memset(block, 0, MPU_PARAMS_SIZE);
    if (source.text == nullptr) {
        return readImage(block, source);
    }
    readNonXML(source.text);
    return true;
}

/** Creates, attaches and fills the block; on failure no segment is left. */
MPU_PARAMS_t* createFrom(const Source_t& source, int* shmid, int key) {
    bool isTaken = false;
    int id = openNewSegment(mpuSegment, key, isTaken);
    if (id < 0 && !isTaken) {
        return nullptr;
    }
    // A segment that could not be replaced has no id; mapping it fails and says so.
    void* block = mpuMapSegment(id, 0);
    if (block == nullptr) {
        fprintf(stderr, "\nError mapping the MPU shared memory area to virtual memory.\n");
    } else {
        *shmid = id;
        pMpuParams = static_cast<MPU_PARAMS_t*>(block);
        if (fillBlock(pMpuParams, source)) {
            return pMpuParams;
        }
        shmdt(block);
    }
    if (id >= 0) {
        shmctl(id, IPC_RMID, nullptr);
    }
    *shmid = -1;
    pMpuParams = nullptr;
    return nullptr;
}

// --- The CMAP block ------------------------------------------------------------------------------

void initialiseCmap(CmapParams_t* block) {
    // A 64-bit host's layout is larger than what was asked for; segments come in whole pages.
    memset(static_cast<void*>(block), 0, std::max(CMAP_PARAMS_SIZE, sizeof(*block)));
    block->updateLock.lock = 1;
    if (sem_init(&block->batteryStateChangeSema, 0, 0) != 0) {
        MPU_BUGCHECK(MPU_E_EXIT_CODE_SEMA_INIT_ERROR, "mpuSemaphore_Init(): init failure.");
    }
    if (pthread_mutex_init(&block->smisIndicationCriticalSection, nullptr) != 0) {
        MPU_BUGCHECK(MPU_E_EXIT_CODE_MUTEX_INIT_ERROR, "mpuMutex_Init(): init failure.");
    }
}

void finishCmap(CmapParams_t* block) {
    if (sem_destroy(&block->batteryStateChangeSema) != 0) {
        MPU_BUGCHECK(MPU_E_EXIT_CODE_SEMA_DONE_ERROR, "mpuSemaphore_Done(): done failure.");
    }
    if (pthread_mutex_destroy(&block->smisIndicationCriticalSection) != 0) {
        MPU_BUGCHECK(MPU_E_EXIT_CODE_MUTEX_DONE_ERROR, "mpuMutex_Done(): done failure.");
    }
}

} // namespace

MPU_PARAMS_t* MPU_createMpuParams(int* shmid, int key) {
    *shmid = -1;
    pMpuParams = nullptr;
    Source_t source;
    if (!openSource(source)) {
        return nullptr;
    }
    MPU_PARAMS_t* block = createFrom(source, shmid, key);
    if (source.text != nullptr) {
        fclose(source.text);
    }
    return block;
}

int MPU_deleteMpuParams(int shmid) {
    return shmctl(shmid, IPC_RMID, nullptr);
}

CmapParams_t* MPU_createCmapParams(int* shmid, int key) {
    *shmid = -1;
    pCmapParams = nullptr;
    bool isTaken = false;
    int id = openNewSegment(cmapSegment, key, isTaken);
    if (id < 0) {
        return nullptr;
    }
    void* block = mpuMapSegment(id, 0);
    if (block == nullptr) {
        int error = errno;
        fprintf(stderr, "Failed to attached CMAP shared memory segment.\n");
        mpuPrintError(error);
        shmctl(id, IPC_RMID, nullptr);
        return nullptr;
    }
    initialiseCmap(static_cast<CmapParams_t*>(block));
    pCmapParams = static_cast<CmapParams_t*>(block);
    *shmid = id;
    return pCmapParams;
}

int MPU_deleteCmapParams(int shmid) {
    // Nothing to destroy without an attachment.
    if (pCmapParams != nullptr) {
        finishCmap(pCmapParams);
    }
    return shmctl(shmid, IPC_RMID, nullptr);
}
