/**
 * @file
 * The walk over the log file at start-up.
 */
#ifndef EMP_STORE_SCAN_H
#define EMP_STORE_SCAN_H

/** How the walk over the log file ended. */
enum EMP_SCAN_OUTCOME_e {
    EMP_E_SCAN_DONE,    ///< index and positions are those of the file, repaired where need be
    EMP_E_SCAN_REBUILT, ///< the file was damaged and has been started again: this is to be logged
};

/** Opens the log file, walks it, rebuilds index and positions, and repairs what it finds. */
EMP_SCAN_OUTCOME_e empScanEventLogFile();

#endif
