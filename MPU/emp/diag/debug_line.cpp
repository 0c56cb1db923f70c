#include "diag/debug_line.h"

#include "mpu_gbl.h"
#include "state/control.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

constexpr size_t OUTPUT_BUFFER_SIZE = size_t{128} * 1024;
char outputBuffer[OUTPUT_BUFFER_SIZE];

/** What every debug line begins with. */
struct LinePrefix_t {
    char text[64 + 2]; ///< the time stamp and two blanks
    size_t length;
};

/** The prefix of the current second. It is made once a second, since that looks up the time zone.
 */
const LinePrefix_t& linePrefix() {
    static LinePrefix_t prefix;
    static S64_t second = -1;
    S64_t now = mpuGetSecond();
    if (now != second) {
        second = now;
        prefix.text[0] = '\0';
        get_timestamp(prefix.text);
        size_t stampLength = strlen(prefix.text);
        memcpy(prefix.text + stampLength, "  ", 2);
        prefix.length = stampLength + 2;
    }
    return prefix;
}

} // namespace

void empDebugLine(const char* format, ...) {
    if (empControl.empDebug != 1) {
        return;
    }
    int savedErrno = errno;
    const LinePrefix_t& prefix = linePrefix();
    fwrite(prefix.text, 1, prefix.length, stdout);
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
