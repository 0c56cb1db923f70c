/**
 * @file
 * Finding records in the log file, and the walk over it at start-up.
 */
#ifndef EMP_STORE_SCAN_H
#define EMP_STORE_SCAN_H

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

/** How the walk over the log file ended. */
enum EMP_SCAN_OUTCOME_e {
    EMP_E_SCAN_DONE,    ///< index and positions are those of the file, repaired where need be
    EMP_E_SCAN_REBUILT, ///< the file was damaged and has been started again: this is to be logged
};

/** Opens the log file, walks it, rebuilds index and positions, and repairs what it finds. */
EMP_SCAN_OUTCOME_e empScanEventLogFile();

#endif
