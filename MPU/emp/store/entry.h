/**
 * @file
 * Reading a stored event back: the header at an offset of the log file, its signature, its data.
 * The steps are separate because every caller prints its own debug lines between them.
 */
#ifndef EMP_STORE_ENTRY_H
#define EMP_STORE_ENTRY_H

#include "emp_mesgs.h"
#include "fault/bugcheck.h"

inline constexpr char EMP_INVALID_ENTRY[] = "Start points to invalid Event Entry?";

/** Reads a record header at the file position; the position is then that of the data. */
void empReadRecord(EmpEvRecord_t* record, EmpSite_t site);

/** Whether a record bears the signature. Nothing else of it is judged. */
bool empRecordSigned(const EmpEvRecord_t* record);

/** Bug-check unless a record bears the signature, without a dump. */
void empRequireSignature(const EmpEvRecord_t* record, EmpSite_t site);

/** Bug-check unless a record bears the signature; the record is dumped first. */
void empRequireSignatureOrDump(const EmpEvRecord_t* record, EmpSite_t site);

/**
 * Reads a record's data at the file position.
 * @param to   room for EMP_MAX_STRUCT bytes; a record that announces more is dumped and takes the
 * bug-check of a short read
 * @param site place of that bug-check
 */
void empReadRecordData(const EmpEvRecord_t* record, void* to, EmpSite_t site);

/** Copies what messages carry of a record header: all of it but its first 8 bytes. */
void empCopyEventHeader(EmpEvLogHeader_t* to, const EmpEvRecord_t* from);

#endif
