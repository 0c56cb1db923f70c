// Compiled with BAD from 0 on; all but 0 must be refused.
#include "diag/debug_line.h"

void line(const char* text, int number, long long large) {
#if BAD == 0
    empDebugLine("[%d] [%.64s] [%08X] [%-56s]\n", number, text, number, text);
#elif BAD == 1
    empDebugLine("[%d]\n", text);
#elif BAD == 2
    empDebugLine("[%s]\n", number);
#elif BAD == 3
    empDebugLine("[%d] [%d]\n", number);
#elif BAD == 4
    empDebugLine("[%d]\n", number, number);
#elif BAD == 5
    empDebugLine("[%d]\n", large);
#elif BAD == 6
    empDebugLine("[%5d]\n", number);
#elif BAD == 7
    empDebugLine("[%u]\n", number);
#elif BAD == 8
    empDebugLine("100%\n");
#elif BAD == 9
    empDebugLine(text, number);
#endif
    (void)text;
    (void)number;
    (void)large;
}
