#include "fault/bugcheck.h"

#include "diag/debug_line.h"
#include "state/control.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace {

char empDebugMsg[1024];

} // namespace

void empFault(const char* fileName, int lineNo, const char* fnName, const char* msg, ...) {
    va_list arguments;
    va_start(arguments, msg);
    vsnprintf(empDebugMsg, sizeof(empDebugMsg), msg, arguments);
    va_end(arguments);

    empControl.empDebug = 1;
    empDebugLine("********************** Critical Error *********************\n"
                 "| File:      %s\n"
                 "| Function:  %s\n"
                 "| Line:      %d\n"
                 "| Message:   %s\n"
                 "***********************************************************\n",
                 fileName, fnName, lineNo, empDebugMsg);
    empFlushOutput();
    abort();
}
