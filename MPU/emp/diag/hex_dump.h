/**
 * @file
 * The raw byte dump that precedes most bug-checks.
 */
#ifndef EMP_DIAG_HEX_DUMP_H
#define EMP_DIAG_HEX_DUMP_H

#include "fixed_width.h"

/**
 * Prints bytes as upper-case hexadecimal: groups of four, lines of 32, an empty line after every
 * 64, and a final line feed. Printed whatever empDebug is, without a time stamp. errno is left as
 * it was.
 * @param length 0 or less prints only the line feed
 * @return 1, the characters of the last print, or -1 when that failed
 */
int empHexDump(const void* buffer, S32_t length);

#endif
