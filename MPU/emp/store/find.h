/**
 * @file
 * Finding records in the log file.
 */
#ifndef EMP_STORE_FIND_H
#define EMP_STORE_FIND_H

#include "fixed_width.h"
#include "state/control.h"

/**
 * Finds the next valid record.
 * @param start offset from which to search, byte by byte
 * @param gap   receives the bytes between @p start and the record; untouched when none is found
 * @return EMP_E_OK, or EMP_E_GENERR when no valid record begins at or after @p start. The file
 * position is restored; eventEntryWorkSpace is overwritten.
 */
EMP_CODE_e empFindValidEventEntry(U32_t start, U32_t* gap);

#endif
