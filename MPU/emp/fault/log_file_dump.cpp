#include "fault/log_file_dump.h"

#include "diag/debug_line.h"
#include "state/control.h"

#include <unistd.h>

namespace {

constexpr U32_t PIECE_SIZE = 100;
constexpr int LAST_PIECE_SHOWN = 30;

/** Prints the bytes of one piece; the breaks are counted from its first byte. */
void printPiece(const U8_t* bytes, int count) {
    for (int i = 0; i < count; i++) {
        empPrint("%02X", bytes[i]);
        int n = i + 1;
        if (n % 100 == 0) {
            empPrint("\n\n");
        } else if (n % 32 == 0) {
            empPrint("\n");
        } else if (n % 4 == 0) {
            empPrint(" ");
        }
    }
}

bool readPiece(U8_t* piece, U32_t length) {
    return read(empControl.eventLogFileFd, piece, length) == static_cast<ssize_t>(length);
}

bool seekLog(off_t position) {
    return lseek(empControl.eventLogFileFd, position, SEEK_SET) != -1;
}

/** @return the bytes that are left for the last piece; -1 after a failure, which is reported */
S64_t printFullPieces(U8_t* piece, U32_t length, off_t savedPosition) {
    for (; length > PIECE_SIZE; length -= PIECE_SIZE) {
        if (!readPiece(piece, PIECE_SIZE)) {
            empDebugLine("empEventLogFilePrint(): Linux read function fails! Read 100 bytes.");
            if (!seekLog(savedPosition)) {
                // KEEP: no full stop, unlike the other lines of this text.
                empDebugLine(
                    "empEventLogFilePrint(): Linux lseek function fails! Back to original position");
            }
            return -1;
        }
        printPiece(piece, PIECE_SIZE);
    }
    return length;
}

/** @return false after a failed read, which is reported */
bool printLastPiece(U8_t* piece, U32_t length) {
    if (!readPiece(piece, length)) {
        empDebugLine("empEventLogFilePrint(): Linux read function fails! Read [%d] bytes.",
                     static_cast<int>(length));
        return false;
    }
    // KEEP: always 30 bytes. A shorter piece shows bytes of the one before, a longer one is cut.
    printPiece(piece, LAST_PIECE_SHOWN);
    return true;
}

} // namespace

void empEventLogFilePrint(U32_t position, U32_t length) {
    empDebugLine("empEventLogFilePrint(): Print [%d] bytes at Position [%d].\n",
                 static_cast<int>(length), static_cast<int>(position));
    off_t savedPosition = lseek(empControl.eventLogFileFd, 0, SEEK_CUR);
    if (savedPosition == -1 || !seekLog(position)) {
        empDebugLine("empEventLogFilePrint(): Linux lseek function fails for Event Log File!");
        return;
    }
    U8_t piece[PIECE_SIZE] = {};
    S64_t lastLength = printFullPieces(piece, length, savedPosition);
    if (lastLength < 0) {
        return;
    }
    bool printed = printLastPiece(piece, static_cast<U32_t>(lastLength));
    if (!seekLog(savedPosition)) {
        empDebugLine(
            "empEventLogFilePrint(): Linux lseek function fails! Back to original position.");
    } else if (printed) {
        empDebugLine("\n");
    }
}
