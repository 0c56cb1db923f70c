#include "diag/debug_line.h"

#include "mpu_gbl.h"
#include "state/control.h"

#include <cerrno>
#include <cstring>

namespace {

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
        int savedErrno = errno;
        second = now;
        prefix.text[0] = '\0';
        get_timestamp(prefix.text);
        size_t stampLength = strlen(prefix.text);
        memcpy(prefix.text + stampLength, "  ", 2);
        prefix.length = stampLength + 2;
        errno = savedErrno;
    }
    return prefix;
}

} // namespace

char* empBeginDebugLine() {
    const LinePrefix_t& prefix = linePrefix();
    char* at = empLineRoom();
    memcpy(at, prefix.text, sizeof(prefix.text));
    return at + prefix.length;
}
