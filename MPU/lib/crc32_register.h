/**
 * @file
 * The register of the record checksum, eight bytes at a step: what computeCRC32() and the checksums
 * of ranges have in common. A checksum begins with a register of all ones and is the complement of
 * the last one.
 */
#ifndef CRC32_REGISTER_H
#define CRC32_REGISTER_H

#include "crc32_table.h"

namespace mpu {

/** Four bytes as the number whose lowest bits come first in the checksum; any alignment. */
inline U32_t crc32LoadLittleEndian(const U8_t* bytes) {
    return static_cast<U32_t>(bytes[0]) | (static_cast<U32_t>(bytes[1]) << 8) |
           (static_cast<U32_t>(bytes[2]) << 16) | (static_cast<U32_t>(bytes[3]) << 24);
}

/** The register after eight more bytes. */
inline U32_t crc32AddEightBytes(U32_t crc, const U8_t* bytes) {
    const auto& table = crc32Table.entry;
    U32_t low = crc ^ crc32LoadLittleEndian(bytes);
    U32_t high = crc32LoadLittleEndian(bytes + 4);
    return table[7][low & 0xFFU] ^ table[6][(low >> 8) & 0xFFU] ^ table[5][(low >> 16) & 0xFFU] ^
           table[4][low >> 24] ^ table[3][high & 0xFFU] ^ table[2][(high >> 8) & 0xFFU] ^
           table[1][(high >> 16) & 0xFFU] ^ table[0][high >> 24];
}

/** The register after @p length more bytes. */
inline U32_t crc32AddBytes(U32_t crc, const U8_t* bytes, U32_t length) {
    for (; length >= CRC32_SLICES; length -= CRC32_SLICES, bytes += CRC32_SLICES) {
        crc = crc32AddEightBytes(crc, bytes);
    }
    for (; length != 0; length--, bytes++) {
        crc = (crc >> 8) ^ crc32Table.entry[0][(crc ^ *bytes) & 0xFFU];
    }
    return crc;
}

/** The checksum as computeCRC32() gives it, of the register behind its last byte. */
inline U32_t crc32OfRegister(U32_t crc) {
    // KEEP: the four bytes are reversed before the value is stored big-endian; every record in
    // every log file carries it so.
    return __builtin_bswap32(~crc);
}

} // namespace mpu

#endif
