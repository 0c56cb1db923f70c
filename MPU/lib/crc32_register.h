/**
 * @file
 * The register of the record checksum, sixteen bytes at a step: what computeCRC32() and the
 * checksums of ranges have in common. A checksum begins with a register of all ones and is the
 * complement of the last one.
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

/** What four bytes, xored with the register if they are the next, come to behind @p more bytes. */
inline U32_t crc32OfFourBytes(U32_t bytes, unsigned more) {
    const auto* table = crc32Table.entry + more;
    return table[3][bytes & 0xFFU] ^ table[2][(bytes >> 8) & 0xFFU] ^
           table[1][(bytes >> 16) & 0xFFU] ^ table[0][bytes >> 24];
}

/** The register after @p length more bytes. */
inline U32_t crc32AddBytes(U32_t crc, const U8_t* bytes, U32_t length) {
    for (; length >= CRC32_SLICES; length -= CRC32_SLICES, bytes += CRC32_SLICES) {
        crc = crc32OfFourBytes(crc ^ crc32LoadLittleEndian(bytes), 12) ^
              crc32OfFourBytes(crc32LoadLittleEndian(bytes + 4), 8) ^
              crc32OfFourBytes(crc32LoadLittleEndian(bytes + 8), 4) ^
              crc32OfFourBytes(crc32LoadLittleEndian(bytes + 12), 0);
    }
    for (; length >= 4; length -= 4, bytes += 4) {
        crc = crc32OfFourBytes(crc ^ crc32LoadLittleEndian(bytes), 0);
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
