/**
 * @file
 * Checksums of many overlapping ranges of a stretch of bytes, each in bounded time whatever its
 * length.
 *
 * A crafted log file can hold a plausible header every few bytes, each with a long body: to sum
 * every body up would take seconds. Checksums are linear, so that of a range follows from what
 * stands before it and what stands before its end; a checkpoint of that is kept every few bytes.
 */
#ifndef MPU_RANGE_CRC_H
#define MPU_RANGE_CRC_H

#include "fixed_width.h"

#include <cstddef>

class RangeCrc_t {
  public:
    /** Checkpoints that a stretch of @p length bytes needs. */
    static constexpr size_t checkpointsFor(size_t length) { return length / STEP + 1; }

    /** A stretch of no bytes. */
    RangeCrc_t() = default;

    /**
     * @param bytes       the stretch; must outlive the object and stay as it is
     * @param checkpoints room for checkpointsFor() of its length; must outlive the object
     */
    RangeCrc_t(const U8_t* bytes, U32_t* checkpoints);

    /** Sets the checkpoints of the first @p length bytes, as far as they are not set yet. */
    void reach(U32_t length);

    /** computeCRC32() of @p length bytes at @p offset. The range lies within what has been reached;
     * @p length is less than 262,144. */
    U32_t ofRange(U32_t offset, U32_t length) const;

  private:
    static constexpr U32_t STEP = 16;

    U32_t registerBefore(U32_t offset) const;

    const U8_t* bytes_ = nullptr;
    U32_t* checkpoints_ =
        nullptr;        // [i]: the register behind the first STEP * i bytes, begun with 0
    U32_t reached_ = 0; // bytes
};

#endif
