/**
 * @file
 * The record format of the log file: what is a dummy, the two records that the event manager writes
 * for itself, and the index. docs/formats.md shows the bytes.
 */
#ifndef EMP_STORE_RECORD_H
#define EMP_STORE_RECORD_H

#include "emp_mesgs.h"
#include "fixed_width.h"

/** Whether a record is a dummy entry: source 27 and id 1, nothing else. */
bool empIsDummy(const EmpEvRecord_t* record);

/** What the checksum covers of a record, from its enclosure id on; event messages carry these
 * bytes. */
inline const U8_t* empCoveredBytes(const EmpEvRecord_t* record) {
    return reinterpret_cast<const U8_t*>(record) + EMP_CRC_START;
}
inline U8_t* empCoveredBytes(EmpEvRecord_t* record) {
    return reinterpret_cast<U8_t*>(record) + EMP_CRC_START;
}

/** Whether @p offset + @p length lies beyond the end of the log file. */
constexpr bool empBeyondLogEnd(U32_t offset, U32_t length) {
    return U64_t{offset} + length > EMP_LOG_FILE_SIZE;
}

/** Marks the index slot of a sequence id as leading to the record at @p offset. @return the slot */
U32_t empIndexRecord(U32_t sequenceId, U32_t offset);

/** Empties an index slot: flag and offset 0. */
void empIndexClear(U32_t slot);

/**
 * Writes the first entry of a fresh log, 200 bytes at offset 0; takes a sequence id, counts it,
 * indexes it and moves empWrite behind it. empWrite must be 0. The file position is not restored.
 */
void empWriteFirstEventEntryToLogFile();

/**
 * Writes a dummy entry. The file position is restored.
 * @param writePosition     offset of the dummy's header; with less than 160 bytes left before the
 * end of the file only zeros are written
 * @param dummyStructLength bytes behind the header that it covers; more than 65,535 is stored as
 * 65,535, and exactly 65,535 runs to the end of the file
 * @param writeZeroFlag     1: those bytes are written as zeros too
 */
void empWriteDummyEntryToLogFile(U32_t writePosition, U32_t dummyStructLength, int writeZeroFlag);

#endif
