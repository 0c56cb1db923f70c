#include "diag/hex_dump.h"

#include <cerrno>
#include <cstdio>

int empHexDump(const void* buffer, S32_t length) {
    int savedErrno = errno;
    const U8_t* bytes = static_cast<const U8_t*>(buffer);
    for (S32_t i = 0; i < length; i++) {
        printf("%02X", bytes[i]);
        S32_t n = i + 1;
        if (n % 64 == 0) {
            fputs("\n\n", stdout);
        } else if (n % 32 == 0) {
            fputs("\n", stdout);
        } else if (n % 4 == 0) {
            fputs(" ", stdout);
        }
    }
    int result = printf("\n");
    errno = savedErrno;
    return result;
}
