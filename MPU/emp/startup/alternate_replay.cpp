#include "startup/alternate_replay.h"

#include "altEventLog.h"
#include "diag/debug_line.h"
#include "diag/hex_dump.h"
#include "dispatch.h"
#include "emp_mesgs.h"
#include "mmsg/message.h"
#include "startup/ael_file_list.h"
#include "state/control.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

// KEEP: the lines of this file name the function without its last letter.

namespace {

constexpr size_t DIRECTORY_PATH_SIZE = EMP_DIRECTORY_TEXT_SIZE + sizeof(EMP_AEL_DIRECTORY_NAME);
constexpr size_t FILE_PATH_SIZE = DIRECTORY_PATH_SIZE + 1 + NAME_MAX;

char directoryPath[DIRECTORY_PATH_SIZE];

EmpEvEntry_t* workSpaceEntry() {
    return reinterpret_cast<EmpEvEntry_t*>(eventEntryWorkSpace);
}

struct FilePath_t {
    char text[FILE_PATH_SIZE];
};

FilePath_t pathOf(const char* name) {
    FilePath_t path;
    snprintf(path.text, sizeof(path.text), "%s/%.*s", directoryPath, NAME_MAX, name);
    return path;
}

// --- One file ------------------------------------------------------------------------------------

/** Opens a file without waiting, whatever it is. @return its descriptor; -1: none */
int openFile(const FilePath_t& path) {
    return open(path.text, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
}

void closeFile(int fd) {
    if (fd != -1) {
        close(fd);
    }
}

bool isRegularFile(int fd) {
    struct statx status = {};
    return statx(fd, "", AT_EMPTY_PATH, STATX_TYPE, &status) == 0 && S_ISREG(status.stx_mode);
}

/** @return the bytes read; -1 without a file; 0 from what is no regular file, which is not read */
S32_t readFile(int fd, void* to, U32_t length) {
    if (fd == -1) {
        return -1;
    }
    if (!isRegularFile(fd)) {
        return 0;
    }
    return static_cast<S32_t>(read(fd, to, length));
}

/** Reads the record header into the work space. @return false, with a line and a dump, when it is
 * not all there */
bool readHeader(int fd, const EmpAelFileNameEntry_t* entry) {
    S32_t size = readFile(fd, eventEntryWorkSpace, EMP_RECORD_SIZE);
    if (size == EMP_RECORD_SIZE) {
        return true;
    }
    empDebugLine(
        "empProcessAlternateEventLogFile(): Can't read Event Entry from AEL File [%s] with size [%d].\n",
        entry->aelFileName, size);
    empHexDump(eventEntryWorkSpace, size);
    return false;
}

// --- Collecting ----------------------------------------------------------------------------------

bool hasAelPrefix(const char* name) {
    return strncmp(name, EMP_AEL_FILE_PREFIX, sizeof(EMP_AEL_FILE_PREFIX) - 1) == 0;
}

/** The directory belongs to alternate event logs alone; "." and ".." are spared by their length. */
void removeUnrecognized(const char* name) {
    if (strlen(name) <= 2) {
        return;
    }
    FilePath_t path = pathOf(name);
    empDebugLine("empProcessAlternateEventLogFile(): Remove Unrecognized File [%s].\n", path.text);
    remove(path.text);
}

EmpAelFileNameEntry_t* newEntry(const char* name, const FilePath_t& path,
                                const struct statx& status) {
    auto* entry = static_cast<EmpAelFileNameEntry_t*>(calloc(1, sizeof(EmpAelFileNameEntry_t)));
    if (entry == nullptr) {
        return nullptr;
    }
    snprintf(entry->name, sizeof(entry->name), "%.*s", NAME_MAX, name);
    memcpy(entry->aelFileName, path.text, strnlen(path.text, sizeof(entry->aelFileName) - 1));
    entry->mtime = status.stx_mtime.tv_sec;
    empDebugLine("empProcessAlternateEventLogFile(): AEL File [%s], st_mtime = [%d].\n",
                 entry->aelFileName, static_cast<int>(entry->mtime));
    return entry;
}

/** Lists a file whose record header can be read, and removes any other. */
void listOrRemove(EmpAelFileNameEntry_t* entry, const FilePath_t& path) {
    int fd = openFile(path);
    bool complete = readHeader(fd, entry);
    closeFile(fd);
    if (!complete) {
        remove(path.text);
        free(entry);
        return;
    }
    const EmpEvRecord_t& record = workSpaceEntry()->evRdHdr;
    entry->tmpEvSequenceId = record.evSequenceId;
    empDebugLine(
        "empProcessAlternateEventLogFile(): Working-on Startup AEL with Temp SeqId [%d].\n",
        static_cast<int>(entry->tmpEvSequenceId));
    empAelFileInsert(entry, record.evSource);
}

void collectFile(const char* name) {
    empDebugLine("empProcessAlternateEventLogFile(): Found one file [%s] in directory [%s].\n",
                 name, directoryPath);
    if (!hasAelPrefix(name)) {
        removeUnrecognized(name);
        return;
    }
    FilePath_t path = pathOf(name);
    // Its times have 64 bits on every host. A file that cannot be looked at keeps size 0.
    struct statx status = {};
    if (statx(AT_FDCWD, path.text, 0, STATX_SIZE | STATX_MTIME, &status) != 0 ||
        status.stx_size == 0) {
        empDebugLine("empProcessAlternateEventLogFile(): Remove 0 byte File [%s].\n", path.text);
        remove(path.text);
        return;
    }
    EmpAelFileNameEntry_t* entry = newEntry(name, path, status);
    // Without memory the file waits for the next start.
    if (entry != nullptr) {
        listOrRemove(entry, path);
    }
}

void collectFiles(DIR* directory) {
    for (;;) {
        errno = 0;
        const struct dirent* found = readdir(directory);
        if (found == nullptr) {
            break;
        }
        collectFile(found->d_name);
    }
    if (errno != 0) {
        empDebugLine("empProcessAlternateEventLogFile(): Read error scanning directory [%s].\n",
                     directoryPath);
    }
}

// --- Replaying -----------------------------------------------------------------------------------

/** Reads the event data behind the header. */
bool readData(int fd, const EmpAelFileNameEntry_t* entry) {
    U16_t length = workSpaceEntry()->evRdHdr.evStructLength;
    U8_t* data = eventEntryWorkSpace + EMP_RECORD_SIZE;
    S32_t size = readFile(fd, data, length);
    if (size == length) {
        return true;
    }
    empDebugLine(
        "empProcessAlternateEventLogFile(): Can't read Event Entry Structure from AEL File [%s].\n",
        entry->aelFileName);
    empHexDump(data, size);
    return false;
}

/** KEEP: the version byte is not looked at. */
bool signatureIsGood(const EmpAelFileNameEntry_t* entry) {
    if (workSpaceEntry()->evRdHdr.evRdSignature == EMP_RECORD_SIGNATURE) {
        return true;
    }
    empDebugLine(
        "empProcessAlternateEventLogFile(): Signature in Event Entry from AEL File [%s] doesn't match.\n",
        entry->aelFileName);
    return false;
}

bool checksumIsGood(const EmpAelFileNameEntry_t* entry) {
    const EmpEvRecord_t& record = workSpaceEntry()->evRdHdr;
    U32_t checksum = computeCRC32(eventEntryWorkSpace + EMP_CRC_START,
                                  U32_t{record.evStructLength} + EMP_EVENT_HEADER_SIZE);
    empDebugLine("empProcessAlternateEventLogFile(): Calculated CRCChecksum = [0x%X].\n", checksum);
    if (checksum != record.evRdCRCChecksum) {
        empDebugLine(
            "empProcessAlternateEventLogFile(): CRC Checksum in Event Entry from AEL File [%s] doesn't match.\n",
            entry->aelFileName);
        return false;
    }
    empDebugLine(
        "empProcessAlternateEventLogFile(): CRC Checksum in Event Entry from AEL File [%s] matches.\n",
        entry->aelFileName);
    return true;
}

/**
 * Builds the message in the receive buffer, which is free at start-up: the dispatch uses the work
 * space. An event too long for a message keeps its data, and a length that wrapped at 65,536: the
 * dispatch or the handler refuses it.
 */
MMSG_t* buildMessage() {
    const EmpEvRecord_t& record = workSpaceEntry()->evRdHdr;
    U16_t structLength = record.evStructLength;
    memset(empControl.empInMsg, 0, EMP_WORK_SPACE_SIZE);
    auto* mmsg = reinterpret_cast<MMSG_t*>(empControl.empInMsg);
    empBuildMmch(&mmsg->mmch, MMSG_E_PROTOCOL_EVENTMGR, EMP_E_MSGS_ALTERNATE_LOG);
    mmsg->mmch.mmsg_length = static_cast<U16_t>(structLength + EMP_EVENT_MMSG_SIZE);
    mmsg->mmch.requestor = record.evSource;
    mmsg->mmch.recipient_loc_bm[0] = empEndpointBit(MMSG_E_EPID_EVENTLOGMP);

    U8_t* body = empControl.empInMsg + MMCH_SIZE;
    memcpy(body, eventEntryWorkSpace + EMP_CRC_START, size_t{EMP_EVENT_HEADER_SIZE} + structLength);
    auto* event = reinterpret_cast<EmpEvLogHeader_t*>(body);
    event->evInstanceNumber = 0;
    event->evSequenceId = 0;
    return mmsg;
}

void replayFile(const EmpAelFileNameEntry_t* entry) {
    FilePath_t path = pathOf(entry->name);
    int fd = openFile(path);
    bool good = readHeader(fd, entry) && readData(fd, entry) && signatureIsGood(entry) &&
                checksumIsGood(entry);
    if (good) {
        empProcEventMmsgMsg(buildMessage());
    }
    closeFile(fd);
    remove(path.text);
    if (good) {
        empDebugLine("empProcessAlternateEventLogFile(): Finish and remove AEL File [%s].\n",
                     entry->aelFileName);
    } else {
        empDebugLine("empProcessAlternateEventLogFile(): Remove AEL File [%s].\n",
                     entry->aelFileName);
    }
}

} // namespace

void empProcessAlternateEventLogFiles() {
    snprintf(directoryPath, sizeof(directoryPath), "%.*s%s",
             static_cast<int>(EMP_DIRECTORY_TEXT_SIZE), oMpuParams->nvramDirectory,
             EMP_AEL_DIRECTORY_NAME);
    empDebugLine("empProcessAlternateEventLogFile(): AEL File Path = [%s].\n", directoryPath);
    DIR* directory = opendir(directoryPath);
    if (directory == nullptr) {
        empDebugLine("empProcessAlternateEventLogFile(): Unable to open directory [%s].\n",
                     directoryPath);
        return;
    }
    collectFiles(directory);
    for (const EmpAelFileNameEntry_t* entry = empAelFileNameList; entry != nullptr;
         entry = entry->link.flink) {
        replayFile(entry);
    }
    empAelFileListFree();
    closedir(directory);
}
