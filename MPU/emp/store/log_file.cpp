#include "store/log_file.h"

#include "diag/hex_dump.h"
#include "state/control.h"

#include <unistd.h>

S64_t empLogPosition(EmpSite_t site) {
    S64_t position = lseek(empControl.eventLogFileFd, 0, SEEK_CUR);
    if (position == -1) {
        EMP_BUGCHECK(site, EMP_LSEEK_FAILS);
    }
    return position;
}

void empLogSeek(S64_t offset, EmpSite_t site, const char* text) {
    if (lseek(empControl.eventLogFileFd, offset, SEEK_SET) == -1) {
        EMP_BUGCHECK(site, "%s", text);
    }
}

void empLogRead(void* to, U32_t length, EmpSite_t site) {
    ssize_t result = read(empControl.eventLogFileFd, to, length);
    if (result != static_cast<ssize_t>(length)) {
        empHexDump(to, static_cast<S32_t>(result));
        EMP_BUGCHECK(site, EMP_READ_FAILS);
    }
}

void empLogWrite(const void* from, U32_t length, EmpSite_t site) {
    ssize_t result = write(empControl.eventLogFileFd, from, length);
    if (result != static_cast<ssize_t>(length)) {
        empHexDump(from, static_cast<S32_t>(result));
        EMP_BUGCHECK(site, EMP_WRITE_FAILS);
    }
}
