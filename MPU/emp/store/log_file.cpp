#include "store/log_file.h"

#include "diag/hex_dump.h"
#include "state/control.h"
#include "state/held.h"
#include "store/window.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace {

/** A seek that has not met the file yet. */
struct PendingSeek_t {
    S64_t from = 0;
    EmpSite_t site = {};
    const char* text = nullptr; ///< null: there is none
};
PendingSeek_t pendingSeek;

/** A stretch of the file that is in memory. */
struct Stretch_t {
    const U8_t* bytes = nullptr;
    S64_t from = 0;
    S64_t length = 0;
};

/** The record that was written last. Nobody else writes the file, so that it stands there so until
 * we overwrite it. */
U8_t newestBytes[EMP_WORK_SPACE_PHYSICAL];
Stretch_t newest;

/** A header that was read, with what came along. It serves the read behind that header only. */
U8_t fetchedBytes[1024];
Stretch_t fetched;

/** Takes the seek's bug-check when the positional call has met what only a seek can meet. */
void judgePendingSeek(S64_t result) {
    int error = errno;
    if (result == -1 && pendingSeek.text != nullptr &&
        (error == ESPIPE || error == EINVAL || error == EOVERFLOW)) {
        empLogFilePosition = pendingSeek.from;
        EMP_BUGCHECK(pendingSeek.site, "%s", pendingSeek.text);
    }
    pendingSeek.text = nullptr;
}

S64_t readAtPosition(void* to, U32_t length) {
    S64_t result = pread(empControl.eventLogFileFd, to, length, empLogFilePosition);
    judgePendingSeek(result);
    return result;
}

/** The position moves on by what a read or write has done. */
void advance(S64_t result) {
    empLogFilePosition += std::max<S64_t>(result, 0);
}

/** Copies what came along with a header. @return whether it was all that is asked for */
bool takeFetched(void* to, U32_t length) {
    S64_t skipped = empLogFilePosition - fetched.from;
    if (skipped < 0 || skipped + length > fetched.length) {
        return false;
    }
    memcpy(to, fetched.bytes + skipped, length);
    advance(length);
    return true;
}

void fetchFromFile() {
    fetched.bytes = fetchedBytes;
    fetched.from = empLogFilePosition;
    fetched.length = readAtPosition(fetchedBytes, sizeof(fetchedBytes));
}

/** Keeps what is in memory true to the file. */
void noteWrite(S64_t from, const void* bytes, U32_t length) {
    empWindowWrite(static_cast<U64_t>(from), bytes, length);
    if (from < newest.from + newest.length && newest.from < from + length) {
        newest = {};
    }
}

/** Keeps a record for a write of several. @return whether it is kept */
bool holdRecord(const EmpEvRecord_t* header, const void* data, U32_t dataLength) {
    if (empHeld.records.length == 0) {
        empHeld.recordsAt = empLogFilePosition;
    }
    U8_t* at = nullptr;
    if (empLogFilePosition == empHeld.recordsAt + empHeld.records.length) {
        at = empHoldBytes(&empHeld.records, EMP_RECORD_SIZE + dataLength);
    }
    if (at == nullptr) {
        return false;
    }
    memcpy(at, header, EMP_RECORD_SIZE);
    memcpy(at + EMP_RECORD_SIZE, data, dataLength);
    pendingSeek.text = nullptr;
    return true;
}

void requireRead(const void* bytes, S64_t result, U32_t length, EmpSite_t site) {
    if (result != S64_t{length}) {
        empHexDump(bytes, static_cast<S32_t>(result));
        EMP_BUGCHECK(site, EMP_READ_FAILS);
    }
}

} // namespace

void empLogTake(S32_t fd) {
    empControl.eventLogFileFd = fd;
    empLogFilePosition = 0;
    pendingSeek.text = nullptr;
    fetched = {};
    newest = {};
    empWindowOpen(0);
}

void empLogRequireSeekable(EmpSite_t site) {
    if (lseek(empControl.eventLogFileFd, 0, SEEK_SET) == -1) {
        EMP_BUGCHECK(site, EMP_LSEEK_FAILS);
    }
}

void empLogSeek(S64_t offset, EmpSite_t site, const char* text) {
    pendingSeek = {empLogFilePosition, site, text};
    empLogFilePosition = offset;
    fetched = {};
}

void empLogMoveTo(S64_t position) {
    empLogFilePosition = position;
}

S64_t empLogSeekEnd(EmpSite_t site) {
    S64_t end = lseek(empControl.eventLogFileFd, 0, SEEK_END);
    if (end == -1) {
        EMP_BUGCHECK(site, EMP_LSEEK_FAILS);
    }
    empLogFilePosition = end;
    return end;
}

S64_t empLogReadSome(void* to, U32_t length) {
    S64_t result = readAtPosition(to, length);
    advance(result);
    return result;
}

void empLogRead(void* to, U32_t length, EmpSite_t site) {
    if (!takeFetched(to, length)) {
        requireRead(to, empLogReadSome(to, length), length, site);
    }
}

void empLogReadHeader(EmpEvRecord_t* to, EmpSite_t site) {
    if (newest.length != 0 && empLogFilePosition == newest.from) {
        fetched = newest;
    } else {
        fetchFromFile();
    }
    S64_t arrived = std::min<S64_t>(fetched.length, EMP_RECORD_SIZE);
    memcpy(static_cast<void*>(to), fetched.bytes, static_cast<size_t>(std::max<S64_t>(arrived, 0)));
    advance(arrived);
    requireRead(to, arrived, EMP_RECORD_SIZE, site);
}

void empLogReadInOrder(void* to, U32_t length, EmpSite_t site) {
    auto offset = static_cast<U64_t>(empLogFilePosition);
    S64_t arrived = empWindowAvailable(offset);
    if (arrived < length) {
        arrived = empLogFillWindow(EMP_WINDOW_STEP);
    }
    arrived = std::min<S64_t>(arrived, length);
    memcpy(to, empWindowAt(offset), static_cast<size_t>(std::max<S64_t>(arrived, 0)));
    advance(arrived);
    requireRead(to, arrived, length, site);
}

S64_t empLogFillWindow(U32_t size) {
    // No other read meets records that are held back: while there are any, nobody but the append
    // reads. What is taken back is read again, from the window as it was.
    empSettleRecords();
    U8_t* to = empWindowOpen(static_cast<U64_t>(empLogFilePosition));
    S64_t arrived = readAtPosition(to, size);
    empWindowHolds(static_cast<U32_t>(std::max<S64_t>(arrived, 0)));
    return arrived;
}

S64_t empLogWriteSome(const void* from, U32_t length) {
    empSettleRecords();
    S64_t start = empLogFilePosition;
    S64_t result = pwrite(empControl.eventLogFileFd, from, length, start);
    judgePendingSeek(result);
    advance(result);
    noteWrite(start, from, length);
    return result;
}

S64_t empLogWriteRecord(const EmpEvRecord_t* header, const void* data, U32_t dataLength) {
    U32_t length = EMP_RECORD_SIZE + dataLength;
    if (empHeld.recordsToo && holdRecord(header, data, dataLength)) {
        advance(length);
        return length;
    }
    memcpy(newestBytes, header, EMP_RECORD_SIZE);
    memcpy(newestBytes + EMP_RECORD_SIZE, data, dataLength);
    S64_t start = empLogFilePosition;
    S64_t result = empLogWriteSome(newestBytes, length);
    newest = {newestBytes, start, length};
    return result;
}

bool empLogWriteHeld() {
    const EmpHeldBytes_t& held = empHeld.records;
    S64_t start = empHeld.recordsAt;
    S64_t written = pwrite(empControl.eventLogFileFd, held.bytes, held.length, start);
    if (written != S64_t{held.length}) {
        return false;
    }
    noteWrite(start, held.bytes, held.length);
    memcpy(newestBytes, held.bytes + held.length - held.last, held.last);
    newest = {newestBytes, start + held.length - held.last, held.last};
    return true;
}

void empLogRequireWritten(const void* from, S64_t written, U32_t length, EmpSite_t site) {
    if (written != S64_t{length}) {
        empHexDump(from, static_cast<S32_t>(written));
        EMP_BUGCHECK(site, EMP_WRITE_FAILS);
    }
}

void empLogWrite(const void* from, U32_t length, EmpSite_t site) {
    empLogRequireWritten(from, empLogWriteSome(from, length), length, site);
}
