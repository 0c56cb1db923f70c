#include "altEventLog.h"

#include "mmsg.h"
#include "text64.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr size_t AEL_DIRECTORY_SIZE = EMP_DIRECTORY_TEXT_SIZE + sizeof(EMP_AEL_DIRECTORY_NAME);
constexpr size_t AEL_PATH_SIZE = 108;

U8_t aelEventEntryWorkSpace[MMSG_MAX_LENGTH];
static_assert(EMP_RECORD_SIZE + EMP_MAX_STRUCT <= MMSG_MAX_LENGTH);

[[noreturn]] void abortCaller() {
    fflush(stdout); // abort() does not
    abort();
}

/** Ends the caller for an event that no file may hold. */
void checkEvent(const EmpEvLogHeader_t& event) {
    if (event.evSource > MMSG_E_MPU_EPID_END) {
        printf("altEventLogM(): Un-recognized Requestor [%d] calling Bug-Check function!!!\n",
               event.evSource);
        abortCaller();
    }
    if (event.evStructLength == 0 || event.evStructLength > EMP_MAX_STRUCT) {
        // KEEP: the number is the source, not the length.
        printf(
            "altEventLogM(): Invalid Event Structure = [%d] length by calling Bug-Check function!!!\n",
            event.evSource);
        abortCaller();
    }
}

/** Fills the record header: identity and time from the blade, the rest from the caller. */
void buildHeader(EmpEvRecord_t& record, const EmpEvLogHeader_t& event,
                 const MPU_PARAMS_t& mpuParams) {
    struct timeval now = {};
    mpuGetTime(&now);
    record = {};
    record.evRdSignature = EMP_RECORD_SIGNATURE;
    record.evRdVersion = EMP_RECORD_VERSION;
    empTextCopy(record.evEnclosureId, mpuParams.chassisSN);
    empTextCopy(record.evBladeId, mpuParams.serialStr);
    record.evSlotId = mpuParams.slotId;
    if (event.evSource == MMSG_E_EPID_STARTUPMP) {
        record.evSequenceId = event.evSequenceId;
    }
    record.evTime = static_cast<U32_t>(now.tv_sec);
    record.evStructLength = event.evStructLength;
    record.evSource = event.evSource;
    record.evType = event.evType;
    record.evCategory = event.evCategory;
    record.evIdVersion = event.evIdVersion;
    record.evId = event.evId;
}

/** Builds the whole record in the work space. @return its length */
size_t buildRecord(const EmpEvLogMsg_t* message, const MPU_PARAMS_t& mpuParams) {
    auto& record = *reinterpret_cast<EmpEvRecord_t*>(aelEventEntryWorkSpace);
    U16_t length = message->evLogHdr.evStructLength;
    buildHeader(record, message->evLogHdr, mpuParams);
    memcpy(aelEventEntryWorkSpace + EMP_RECORD_SIZE,
           reinterpret_cast<const U8_t*>(message) + EMP_EVENT_HEADER_SIZE, length);
    record.evRdCRCChecksum =
        computeCRC32(aelEventEntryWorkSpace + EMP_CRC_START, U32_t{EMP_EVENT_HEADER_SIZE} + length);
    return size_t{EMP_RECORD_SIZE} + length;
}

S32_t reportWriteFailure(const char* text) {
    int error = errno;
    fputs(text, stderr);
    fprintf(stderr, "    %s\n", strerror(error));
    return ALT_EVENT_LOG_E_WRITE;
}

S32_t writeRecord(int fd, size_t length) {
    if (lseek(fd, 0, SEEK_END) < 0) {
        return reportWriteFailure("*** An error occurred seeking to end in Alternate Event Log\n");
    }
    if (write(fd, aelEventEntryWorkSpace, length) < static_cast<ssize_t>(length)) {
        return reportWriteFailure("*** An error occurred writing to Alternate Event Log\n");
    }
    fsync(fd);
    return ALT_EVENT_LOG_E_OK;
}

/** Makes sure of the directory. */
bool haveDirectory(const char* directory) {
    if (access(directory, W_OK) == 0 || mkdir(directory, 0777) == 0) {
        return true;
    }
    // Another process may just have made it.
    if (errno == EEXIST && access(directory, W_OK) == 0) {
        return true;
    }
    printf("openAELFileFd(): Unable to make directory %s\n", directory);
    return false;
}

/** Creates the file whose name is made of the directory; negative, with errno, on failure. */
int createFile(char (&path)[AEL_PATH_SIZE], const char* directory) {
    int length = snprintf(path, sizeof(path), "%s/%s%d.%s", directory, EMP_AEL_FILE_PREFIX,
                          static_cast<int>(getpid()), "XXXXXX");
    if (length >= static_cast<int>(sizeof(path))) {
        errno = ENAMETOOLONG;
        return -1;
    }
    return mkstemp(path);
}

} // namespace

int openAELFileFd(const MPU_PARAMS_t* mpuParamsPtr) {
    char directory[AEL_DIRECTORY_SIZE];
    char path[AEL_PATH_SIZE];
    snprintf(directory, sizeof(directory), "%.128s%s", mpuParamsPtr->nvramDirectory,
             EMP_AEL_DIRECTORY_NAME);
    if (!haveDirectory(directory)) {
        return -1;
    }
    int fd = createFile(path, directory);
    if (fd < 0) {
        int error = errno;
        fprintf(stderr, "openAELFileFd(): Unable to open %s\n", path);
        fprintf(stderr, "openAELFileFd(): %s\n", strerror(error));
    }
    return fd;
}

S32_t altEventLogM(const EmpEvLogMsg_t* evLogMsgPtr, const MPU_PARAMS_t* mpuParamsPtr) {
    if (mpuParamsPtr == nullptr) {
        // KEEP: this counts as done; the caller has nothing better to do.
        printf(
            "altEventLogM(): AEL File not created for Requestor [%d] b/s MPU Parameters memory not initialized\n",
            evLogMsgPtr->evLogHdr.evSource);
        return ALT_EVENT_LOG_E_OK;
    }
    checkEvent(evLogMsgPtr->evLogHdr);
    size_t length = buildRecord(evLogMsgPtr, *mpuParamsPtr);
    int fd = openAELFileFd(mpuParamsPtr);
    if (fd < 0) {
        return ALT_EVENT_LOG_E_OPEN;
    }
    S32_t status = writeRecord(fd, length);
    close(fd);
    return status;
}

void altEventLog(const EmpEvLogMsg_t* evLogMsgPtr, const MPU_PARAMS_t* mpuParamsPtr, int exitVal) {
    altEventLogM(evLogMsgPtr, mpuParamsPtr);
    printf("altEventLog(): Exit with value = [%d]\n", exitVal);
    exit(exitVal);
}
