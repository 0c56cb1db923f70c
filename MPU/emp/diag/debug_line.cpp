#include "diag/debug_line.h"

#include "mpu_gbl.h"
#include "state/control.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>

namespace {

constexpr size_t OUTPUT_BUFFER_SIZE = size_t{128} * 1024;
char outputBuffer[OUTPUT_BUFFER_SIZE];

/** The stamp of the current second. Its text is made once a second, since that looks up the time
 * zone. */
const char* timeStamp() {
    static char text[64];
    static time_t second = -1;
    time_t now = time(nullptr);
    if (now != second) {
        second = now;
        text[0] = '\0';
        get_timestamp(text);
    }
    return text;
}

} // namespace

void empDebugLine(const char* format, ...) {
    if (empControl.empDebug != 1) {
        return;
    }
    int savedErrno = errno;
    fputs(timeStamp(), stdout);
    fputs("  ", stdout);
    va_list arguments;
    va_start(arguments, format);
    vprintf(format, arguments);
    va_end(arguments);
    errno = savedErrno;
}

void empFlushOutput() {
    int savedErrno = errno;
    fflush(stdout);
    errno = savedErrno;
}

void empBufferOutput() {
    setvbuf(stdout, outputBuffer, _IOFBF, sizeof(outputBuffer));
}
