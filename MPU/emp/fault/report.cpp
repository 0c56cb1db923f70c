#include "fault/report.h"

#include "diag/debug_line.h"
#include "diag/hex_dump.h"
#include "fault/control_image.h"
#include "fault/log_file_dump.h"
#include "fault/report_label.h"
#include "state/control.h"

#include <algorithm>
#include <unistd.h>

namespace {

constexpr S64_t LOG_DUMP_SIZE = 256;
constexpr S32_t BUFFER_DUMP_SIZE = 256;

/** The bytes to dump at a position: at most 256, up to the end of the log. Signed and wide, because
 * positions may be negative or lie far behind the end. */
U32_t logDumpLength(S64_t position) {
    return static_cast<U32_t>(
        std::clamp(S64_t{EMP_LOG_FILE_SIZE} - position, S64_t{0}, LOG_DUMP_SIZE));
}

/** Where the log file stands; before it is open, standard input. @return -1 when that is no file
 * with a position */
S64_t logFilePosition() {
    if (empControl.eventLogFileFd == 0) {
        return lseek(empControl.eventLogFileFd, 0, SEEK_CUR);
    }
    return lseek(empControl.eventLogFileFd, empLogFilePosition, SEEK_SET);
}

void reportLogFile() {
    S64_t current = logFilePosition();
    U32_t length = logDumpLength(current);
    empDebugLine("Dump [%d] bytes of Event Log File at current file position [%d].\n",
                 static_cast<int>(length), static_cast<int>(current));
    empEventLogFilePrint(static_cast<U32_t>(current), length);

    S64_t before = std::max(current - LOG_DUMP_SIZE, S64_t{0});
    empDebugLine("Dump [256] bytes of Event Log File at file position [%d].\n",
                 static_cast<int>(before));
    empEventLogFilePrint(static_cast<U32_t>(before), LOG_DUMP_SIZE);

    length = logDumpLength(empControl.empWrite);
    empDebugLine("Dump [%d] bytes of Event Log File at empControl.empWrite [%d].\n",
                 static_cast<int>(length), static_cast<int>(empControl.empWrite));
    empEventLogFilePrint(empControl.empWrite, length);

    length = logDumpLength(empControl.empStart);
    empDebugLine("Dump [%d] bytes of Event Log File at empControl.empStart [%d].\n",
                 static_cast<int>(length), static_cast<int>(empControl.empStart));
    empEventLogFilePrint(empControl.empStart, length);
}

void reportBuffers() {
    empDebugLine(EMP_REPORT_LABEL "= 0X\n", "empControl.empInMsg");
    empHexDump(empControl.empInMsg, BUFFER_DUMP_SIZE);
    empDebugLine(EMP_REPORT_LABEL "= 0X\n", "eventEntryWorkSpace");
    empHexDump(eventEntryWorkSpace, BUFFER_DUMP_SIZE);
}

void reportIndex() {
    empDebugLine(EMP_REPORT_LABEL "= 0X\n[0]\n", "eventEntryDatabase");
    for (U32_t i = 0; i < EMP_INDEX_ENTRIES; i++) {
        const EmpEvDatabase_t& entry = eventEntryDatabase[i];
        // KEEP: every word has a time stamp of its own.
        empDebugLine("%08X ", (U32_t{entry.evFlag} << 24U) | entry.evOffset);
        U32_t n = i + 1;
        if (n % 128 == 0) {
            empPrint("\n[%d]\n", static_cast<int>(n));
        } else if (n % 16 == 0) {
            empPrint("\n");
        }
    }
    empPrint("\n");
}

} // namespace

void empReportError(const char* fileName, int lineNo, const char* fnName, const char* message) {
    empDebugLine("********************** Critical Error *********************\n"
                 "| File:      %s\n"
                 "| Function:  %s\n"
                 "| Line:      %d\n"
                 "| Message:   %s\n"
                 "***********************************************************\n",
                 fileName, fnName, lineNo, message);
}

void empReportState() {
    empControlPrint();
    reportLogFile();
    reportBuffers();
    reportIndex();
    empDebugLine("\nFinish the Event Manager internal data dump.\n");
}
