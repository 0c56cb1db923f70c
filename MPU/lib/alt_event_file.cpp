#include "alt_event_file.h"

#include "altEventLog.h"
#include "text64.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

using namespace mpu;

namespace {

constexpr size_t DIRECTORY_SIZE = EMP_DIRECTORY_TEXT_SIZE + sizeof(EMP_AEL_DIRECTORY_NAME);
constexpr size_t PATH_SIZE = 108;
constexpr size_t LINE_SIZE = 256; ///< of what is said: a path at most, and some words

U8_t aelEventEntryWorkSpace[MMSG_MAX_LENGTH];
static_assert(EMP_RECORD_SIZE + EMP_MAX_STRUCT <= MMSG_MAX_LENGTH);

/** A text that is put together without stdio; what its room does not hold is cut off. */
template <size_t SIZE>
struct Text_s {
    char text[SIZE] = {};
    size_t needed = 0; ///< characters, had there been room

    Text_s& add(const char* more, size_t most = SIZE) {
        for (; most > 0 && *more != '\0'; most--, more++) {
            if (needed < SIZE - 1) {
                text[needed] = *more;
            }
            needed++;
        }
        return *this;
    }
    Text_s& addNumber(unsigned number) {
        char digits[12] = {};
        size_t at = sizeof(digits) - 1;
        do {
            digits[--at] = static_cast<char>('0' + number % 10);
            number /= 10;
        } while (number != 0);
        return add(digits + at);
    }
    bool isCut() const { return needed >= SIZE; }
};

void writeLine(int /*fd*/, const char* text, const char* more) {
    Text_s<LINE_SIZE> line;
    line.add(text).add(more).add("\n");
    if (write(STDERR_FILENO, line.text, strlen(line.text)) < 0) {
        return; // nobody is left to be told
    }
}

const char* plainMeaning(int error) {
    const char* meaning = strerrordesc_np(error); // unlike strerror(), in no language but its own
    return meaning != nullptr ? meaning : "Unknown error";
}

constexpr MpuAelSay_t AT_ONCE = {writeLine, plainMeaning};

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

S32_t reportWriteFailure(const char* text, const MpuAelSay_t& say) {
    int error = errno;
    say.line(STDERR_FILENO, text, "");
    say.line(STDERR_FILENO, "    ", say.meaning(error));
    return ALT_EVENT_LOG_E_WRITE;
}

S32_t writeRecord(int fd, size_t length, const MpuAelSay_t& say) {
    if (lseek(fd, 0, SEEK_END) < 0) {
        return reportWriteFailure("*** An error occurred seeking to end in Alternate Event Log",
                                  say);
    }
    if (write(fd, aelEventEntryWorkSpace, length) < static_cast<ssize_t>(length)) {
        return reportWriteFailure("*** An error occurred writing to Alternate Event Log", say);
    }
    fsync(fd);
    return ALT_EVENT_LOG_E_OK;
}

/** Makes sure of the directory. */
bool haveDirectory(const char* directory, const MpuAelSay_t& say) {
    if (access(directory, W_OK) == 0 || mkdir(directory, 0777) == 0) {
        return true;
    }
    // Another process may just have made it.
    if (errno == EEXIST && access(directory, W_OK) == 0) {
        return true;
    }
    say.line(STDOUT_FILENO, "openAELFileFd(): Unable to make directory ", directory);
    return false;
}

} // namespace

namespace mpu {

int mpuAelOpen(const MPU_PARAMS_t* params, const MpuAelSay_t& say) {
    Text_s<DIRECTORY_SIZE> directory;
    directory.add(params->nvramDirectory, EMP_DIRECTORY_TEXT_SIZE).add(EMP_AEL_DIRECTORY_NAME);
    if (!haveDirectory(directory.text, say)) {
        return -1;
    }
    Text_s<PATH_SIZE> path;
    path.add(directory.text, DIRECTORY_SIZE).add("/").add(EMP_AEL_FILE_PREFIX);
    path.addNumber(static_cast<unsigned>(getpid())).add(".XXXXXX");
    errno = ENAMETOOLONG;
    int fd = path.isCut() ? -1 : mkstemp(path.text);
    if (fd < 0) {
        int error = errno;
        say.line(STDERR_FILENO, "openAELFileFd(): Unable to open ", path.text);
        say.line(STDERR_FILENO, "openAELFileFd(): ", say.meaning(error));
    }
    return fd;
}

S32_t mpuAelWrite(const EmpEvLogMsg_t* event, const MPU_PARAMS_t* params, const MpuAelSay_t& say) {
    size_t length = buildRecord(event, *params);
    int fd = mpuAelOpen(params, say);
    if (fd < 0) {
        return ALT_EVENT_LOG_E_OPEN;
    }
    S32_t status = writeRecord(fd, length, say);
    close(fd);
    return status;
}

bool mpuAelLeave(const MMSG_t* message, const MPU_PARAMS_t* params) {
    alignas(EmpEvLogMsg_t) U8_t body[MMSG_BODY_MAX];
    U16_t length = message->mmch.mmsg_length;
    memcpy(body, message->user_data_start, size_t{length} - MMCH_SIZE);
    auto* event = reinterpret_cast<EmpEvLogMsg_t*>(body);
    event->evLogHdr.evSource = message->mmch.requestor;
    event->evLogHdr.evStructLength = static_cast<U16_t>(length - EMP_EVENT_MMSG_SIZE);
    if (length == EMP_EVENT_MMSG_SIZE) {
        event->evStruct[0] = 0;
        event->evLogHdr.evStructLength = 1;
    }
    return mpuAelWrite(event, params, AT_ONCE) == ALT_EVENT_LOG_E_OK;
}

} // namespace mpu
