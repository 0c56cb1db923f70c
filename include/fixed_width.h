/**
 * @file
 * The fixed-width types of the blade. Values of these types are in the host's own byte order; what
 * leaves a process is declared with the types of big_endian.h.
 */
#ifndef FIXED_WIDTH_H
#define FIXED_WIDTH_H

#include <cstdint>

using U8_t = std::uint8_t;
using U16_t = std::uint16_t;
using U32_t = std::uint32_t;
using U64_t = std::uint64_t;
using S8_t = std::int8_t;
using S16_t = std::int16_t;
using S32_t = std::int32_t;
using S64_t = std::int64_t;

#endif
