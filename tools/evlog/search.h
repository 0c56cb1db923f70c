/**
 * @file
 * What is a record, and the search for the next one: the event manager's rules, on bytes in memory.
 */
#ifndef EVLOG_SEARCH_H
#define EVLOG_SEARCH_H

#include "checksum/range_crc.h"
#include "evlog/evlog.h"

#include <optional>
#include <vector>

/** The header at @p offset; 160 bytes must lie there. */
inline const EmpEvRecord_t* evlogHeaderAt(std::span<const U8_t> bytes, U32_t offset) {
    return reinterpret_cast<const EmpEvRecord_t*>(bytes.data() + offset);
}

/** Header and data, as the header says. */
inline U32_t evlogRecordLength(const EmpEvRecord_t& header) {
    return U32_t{EMP_RECORD_SIZE} + header.evStructLength;
}

/** Whether a stretch reaches behind the end of the ring. */
inline bool evlogBeyondEnd(U32_t offset, U32_t length) {
    return U64_t{offset} + length > EMP_LOG_FILE_SIZE;
}

/** Whether the event manager bug-checks on a header instead of stepping over it. */
bool evlogIsBadSource(const EmpEvRecord_t& header);

/** What makes a header implausible: NO_HEADER, VERSION, SOURCE or LENGTH; NONE when plausible. */
EVLOG_REASON_e evlogJudgeHeader(const EmpEvRecord_t& header);

/** Body bytes that a record's checksum covers: none of a dummy entry's. */
U32_t evlogBodyLength(const EmpEvRecord_t& header);

/** What a search met on its way. */
struct EvlogSearch_t {
    std::optional<U32_t> found;     ///< offset of the next valid record
    std::optional<U32_t> badSource; ///< first header before it that the event manager bug-checks on
    U8_t badSourceValue = 0;        ///< its source
    std::optional<U32_t> cut;       ///< first header before it at which the event manager gives up
};

/** Finds records in one image. */
class EvlogFinder_t {
  public:
    /** @param bytes must outlive the object; at most EVLOG_REACHABLE */
    explicit EvlogFinder_t(std::span<const U8_t> bytes);
    EvlogFinder_t(const EvlogFinder_t&) = delete;
    EvlogFinder_t& operator=(const EvlogFinder_t&) = delete;

    /** The next valid record at or behind @p start, and what the event manager would not have
     * passed on the way there. */
    EvlogSearch_t next(U32_t start) const;

    /** What stands at @p offset, the reason why no valid record does; NONE when one does. */
    EVLOG_REASON_e judge(U32_t offset) const;

  private:
    std::optional<U32_t> nextSignature(U32_t start) const;

    std::span<const U8_t> bytes_;
    std::vector<U32_t> checkpoints_; // of crc_
    RangeCrc_t crc_;
};

#endif
