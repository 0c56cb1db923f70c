/**
 * @file
 * Debug lines with a time stamp that stands still, so that printed output can be compared as a
 * whole. Include in one file of the test, and wrap _Z13get_timestampPc.
 */
#ifndef FIXED_TIME_STAMP_H
#define FIXED_TIME_STAMP_H

#include <cstdio>
#include <string>

/** The stamp and the two blanks behind it. */
#define STAMP "Feb  3 04:05:06  "

extern "C" [[gnu::used]] inline void __wrap__Z13get_timestampPc(char* buf) {
    snprintf(buf, 64, "Feb  3 04:05:06");
}

/** The lines of @p text, each behind a stamp: for texts that are all debug lines. */
inline std::string stamped(const std::string& text) {
    std::string result;
    for (size_t begin = 0; begin < text.size();) {
        size_t end = text.find('\n', begin) + 1;
        result += STAMP;
        result.append(text, begin, end - begin);
        begin = end;
    }
    return result;
}

#endif
