#include "fault/bugcheck.h"

#include "diag/debug_line.h"
#include "fault/records.h"
#include "fault/report.h"
#include "state/control.h"
#include "state/held.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace {

/** The formatted message; zeroed, so that its first 64 bytes can be stored whatever its length. */
char empDebugMsg[1024];
static_assert(sizeof(empDebugMsg) >= EMP_ERROR_TEXT_SIZE);

bool reporting; ///< a bug-check is under way

[[noreturn]] void endProcess() {
    // abort() does not write what stdio still holds.
    empFlushOutput();
    abort();
}

} // namespace

void empFault(const char* fileName, int lineNo, const char* fnName, const char* msg, ...) {
    empSettle();
    if (reporting) {
        // An error inside the report ends it: what is printed so far stands, the process goes.
        endProcess();
    }
    reporting = true;

    va_list arguments;
    va_start(arguments, msg);
    vsnprintf(empDebugMsg, sizeof(empDebugMsg), msg, arguments);
    va_end(arguments);

    U8_t saveEmpDebug = empControl.empDebug;
    empControl.empDebug = 1;
    empReportError(fileName, lineNo, fnName, empDebugMsg);
    empReportState();
    // The report is out before anything is tried on a file system that may be the cause.
    empFlushOutput();
    empStoreFaultRecords(fileName, lineNo, fnName, empDebugMsg);
    empControl.empDebug = saveEmpDebug;
    endProcess();
}
