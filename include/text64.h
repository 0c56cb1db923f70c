/**
 * @file
 * Texts of fixed size that may hold no NUL. They are never handed to strcmp, strcpy or a bare "%s":
 * compare and copy them here, print them with "%.64s" and empTextArg().
 */
#ifndef TEXT64_H
#define TEXT64_H

#include "configuration.h"
#include "fixed_width.h"

#include <cstring>

/** Whether two 64-byte texts are equal up to their first NUL. */
inline bool empTextEqual(const U8_t* left, const U8_t* right) {
    return strncmp(reinterpret_cast<const char*>(left), reinterpret_cast<const char*>(right),
                   EMP_ID_TEXT_SIZE) == 0;
}

/** Copies a 64-byte text into a zeroed field: at most 63 bytes, so that it ends in a NUL. */
inline void empTextCopy(U8_t* to, const U8_t* from) {
    size_t length = strnlen(reinterpret_cast<const char*>(from), EMP_ID_TEXT_SIZE - 1);
    memset(to, 0, EMP_ID_TEXT_SIZE);
    memcpy(to, from, length);
}

/** A 64-byte text as the argument of "%.64s". */
inline const char* empTextArg(const U8_t* text) {
    return reinterpret_cast<const char*>(text);
}

#endif
