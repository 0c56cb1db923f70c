#include "altEventLog.h"
#include "crc32_table.h"

namespace {

/** Four bytes as the number whose lowest bits come first in the checksum; any alignment. */
U32_t loadLittleEndian(const U8_t* bytes) {
    return static_cast<U32_t>(bytes[0]) | (static_cast<U32_t>(bytes[1]) << 8) |
           (static_cast<U32_t>(bytes[2]) << 16) | (static_cast<U32_t>(bytes[3]) << 24);
}

/** The register after eight more bytes. */
U32_t addEightBytes(U32_t crc, const U8_t* bytes) {
    const auto& table = crc32Table.entry;
    U32_t low = crc ^ loadLittleEndian(bytes);
    U32_t high = loadLittleEndian(bytes + 4);
    return table[7][low & 0xFFU] ^ table[6][(low >> 8) & 0xFFU] ^ table[5][(low >> 16) & 0xFFU] ^
           table[4][low >> 24] ^ table[3][high & 0xFFU] ^ table[2][(high >> 8) & 0xFFU] ^
           table[1][(high >> 16) & 0xFFU] ^ table[0][high >> 24];
}

/** The standard CRC-32C of the data. */
U32_t computeCastagnoli(const U8_t* bytes, U32_t length) {
    U32_t crc = 0xFFFFFFFFU;
    for (; length >= CRC32_SLICES; length -= CRC32_SLICES, bytes += CRC32_SLICES) {
        crc = addEightBytes(crc, bytes);
    }
    for (; length != 0; length--, bytes++) {
        crc = (crc >> 8) ^ crc32Table.entry[0][(crc ^ *bytes) & 0xFFU];
    }
    return ~crc;
}

} // namespace

U32_t computeCRC32(const void* data, U32_t length) {
    // KEEP: the four bytes are reversed before the value is stored big-endian; every record in
    // every log file carries it so.
    return __builtin_bswap32(computeCastagnoli(static_cast<const U8_t*>(data), length));
}
