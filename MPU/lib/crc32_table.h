/**
 * @file
 * The tables of the record checksum, computed by the compiler: nothing is built when the program
 * runs, so a signal handler may use them at any time.
 */
#ifndef CRC32_TABLE_H
#define CRC32_TABLE_H

#include "fixed_width.h"

namespace mpu {

constexpr U32_t CRC32_POLYNOMIAL = 0x82F63B78U; ///< Castagnoli, reflected
constexpr unsigned CRC32_SLICES = 16;           ///< bytes taken in one step

/**
 * entry[0] is the usual table of one byte's remainders; entry[n] holds the same remainders carried
 * over n more zero bytes, so that sixteen bytes can be looked up side by side.
 */
struct Crc32Table_s {
    U32_t entry[CRC32_SLICES][256];
};
using Crc32Table_t = Crc32Table_s;

constexpr Crc32Table_t crc32MakeTable() {
    Crc32Table_t table{};
    for (U32_t byte = 0; byte < 256; byte++) {
        U32_t remainder = byte;
        for (int bit = 0; bit < 8; bit++) {
            remainder = (remainder >> 1) ^ ((remainder & 1U) != 0 ? CRC32_POLYNOMIAL : 0U);
        }
        table.entry[0][byte] = remainder;
    }
    for (unsigned slice = 1; slice < CRC32_SLICES; slice++) {
        for (U32_t byte = 0; byte < 256; byte++) {
            U32_t shorter = table.entry[slice - 1][byte];
            table.entry[slice][byte] = (shorter >> 8) ^ table.entry[0][shorter & 0xFFU];
        }
    }
    return table;
}

inline constexpr Crc32Table_t crc32Table = crc32MakeTable();

} // namespace mpu

#endif
