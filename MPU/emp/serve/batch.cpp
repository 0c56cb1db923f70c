#include "serve/batch.h"

#include "diag/output.h"
#include "emp_mesgs.h"
#include "loop/wait.h"
#include "mmsg.h"
#include "mmsg/message.h"
#include "mmsg/read_ahead.h"
#include "serve/pass.h"
#include "state/control.h"
#include "state/held.h"
#include "store/log_file.h"

#include <cerrno>
#include <cstddef>
#include <cstring>

namespace {

/** No line waits for longer than this many passes. */
constexpr int MOST_EVENTS = 64;

/** Fewer do not pay for remembering the index. */
constexpr int FEWEST_EVENTS = 3;

/** More than the lines of an event take. Lines that were written cannot be taken back. */
constexpr size_t ROOM_FOR_LINES = size_t{16} * 1024;

/** All that taking in an event changes, but for what the next message overwrites. */
struct Remembered_t {
    U8_t control[offsetof(EmpControl_t, empInMsg)];
    EmpEvDatabase_t index[EMP_INDEX_ENTRIES + 1];
    U8_t workSpace[EMP_WORK_SPACE_SIZE];
    S64_t logFilePosition;
    size_t messages; ///< empMsmMark()
    size_t lines;    ///< empOutputMark()
    int error;
};
Remembered_t remembered;

void remember() {
    memcpy(remembered.control, &empControl, sizeof(remembered.control));
    memcpy(static_cast<void*>(remembered.index), eventEntryDatabase, sizeof(eventEntryDatabase));
    memcpy(remembered.workSpace, eventEntryWorkSpace, sizeof(remembered.workSpace));
    remembered.logFilePosition = empLogFilePosition;
    remembered.messages = empMsmMark();
    remembered.lines = empOutputMark();
    remembered.error = errno;
}

/** The frames of the pass that is under way are left behind: what it did has never been. */
[[noreturn]] void takeBack() {
    memcpy(static_cast<void*>(&empControl), remembered.control, sizeof(remembered.control));
    memcpy(static_cast<void*>(eventEntryDatabase), remembered.index, sizeof(eventEntryDatabase));
    memcpy(eventEntryWorkSpace, remembered.workSpace, sizeof(remembered.workSpace));
    empLogMoveTo(remembered.logFilePosition);
    empMsmReturnTo(remembered.messages);
    empOutputReturnTo(remembered.lines);
    errno = remembered.error;
    for (;;) {
        empServePass();
    }
}

void settle() {
    empHeld.settle = nullptr;
    empHeld.recordsToo = false;
    if (empHeld.records.length != 0 && !empLogWriteHeld()) {
        takeBack();
    }
    empWriteLines();
    empSendHeldCopies();
}

/** Whether records can wait for those behind them. Not while an archiver is to get them; nor where
 * a dummy entry follows each; and only where records are read that lie behind those that wait. */
bool recordsCanWait() {
    return !empArchiverFlagSet() && empControl.empStart != EMP_LOG_FILE_SIZE &&
           empControl.empWrite <= empControl.empStart;
}

/** Events at the front of what was read ahead, with nothing between them. */
int eventsWaiting() {
    size_t behind = 0;
    int events = 0;
    for (; events < MOST_EVENTS; events++) {
        const MMCH_t* next = empMsmWaiting(behind);
        if (next == nullptr || next->opcode.request.type != EMP_E_MSGS_LOG ||
            next->mmsg_length > MMSG_MAX_LENGTH) {
            break;
        }
        behind += next->mmsg_length;
    }
    return events;
}

} // namespace

bool empServeBatch() {
    int events = eventsWaiting();
    if (events < FEWEST_EVENTS) {
        return false;
    }
    empHeld.records.length = 0;
    empHeld.copies.length = 0;
    empHeld.settle = settle;
    empHeld.recordsToo = recordsCanWait();
    if (empHeld.recordsToo) {
        remember();
    }
    // Something on the way may have settled it already; the rest is worth another batch.
    while (events-- > 0 && empHeld.settle != nullptr && empOutputRoom() >= ROOM_FOR_LINES) {
        empServePass();
    }
    empSettle();
    return true;
}
