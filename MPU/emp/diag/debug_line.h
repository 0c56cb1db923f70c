/**
 * @file
 * The one door for debug lines.
 */
#ifndef EMP_DIAG_DEBUG_LINE_H
#define EMP_DIAG_DEBUG_LINE_H

#include "diag/output.h"
#include "state/control.h"

/** Begins a line with the time stamp and two blanks. @return where it goes on, as empLineRoom() */
char* empBeginDebugLine();

/**
 * Prints the time stamp, two blanks and the message when empDebug is 1. errno is left as it was.
 * @param format printf format, a literal that the compiler checks; the line feed is part of it
 */
template <typename... Arguments>
[[gnu::always_inline]] inline void empDebugLine(EmpLineFormatFor_t<Arguments...> format,
                                                Arguments... arguments) {
    if (empControl.empDebug == 1) {
        empLineEnds(empPutFormatted(empBeginDebugLine(), format, arguments...));
    }
}

#endif
