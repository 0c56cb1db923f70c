/**
 * @file
 * Checksums of many overlapping ranges of one image, each in bounded time whatever its length.
 */
#ifndef EVLOG_RANGE_CRC_H
#define EVLOG_RANGE_CRC_H

#include "fixed_width.h"

#include <span>
#include <vector>

/**
 * A crafted file can hold a plausible header every few bytes, each with a long body: summing every
 * body up would take seconds. Checksums are linear, so that of a range follows from those of two
 * prefixes of the image; prefixes are kept for every 64th byte.
 */
class EvlogRangeCrc_t {
  public:
    /** @param bytes must outlive the object; less than 4 MiB */
    explicit EvlogRangeCrc_t(std::span<const U8_t> bytes);

    /** computeCRC32() of @p length bytes at @p offset; the range lies within the image, and
     * @p length is less than 262,144. */
    U32_t ofRange(U32_t offset, U32_t length) const;

  private:
    U32_t ofPrefix(U32_t length) const;

    std::span<const U8_t> bytes_;
    std::vector<U32_t> prefixes_; // plain CRC-32C of the first 64 * i bytes
};

#endif
