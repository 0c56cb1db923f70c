/**
 * @file
 * Alternate event log files of a test, built byte by byte and independent of the product's own
 * structures and checksum.
 */
#ifndef AEL_FILE_H
#define AEL_FILE_H

#include <cstdint>
#include <string>

/** CRC-32C with its bytes reversed, one bit at a time. */
inline uint32_t bitwiseChecksum(const std::string& bytes) {
    uint32_t crc = 0xFFFFFFFF;
    for (char byte : bytes) {
        crc ^= static_cast<unsigned char>(byte);
        for (int bit = 0; bit < 8; bit++) {
            crc = (crc & 1U) != 0 ? (crc >> 1U) ^ 0x82F63B78U : crc >> 1U;
        }
    }
    return __builtin_bswap32(~crc);
}

inline std::string bigEndian(uint32_t value, int width) {
    std::string bytes;
    for (int shift = 8 * (width - 1); shift >= 0; shift -= 8) {
        bytes += static_cast<char>(value >> static_cast<unsigned>(shift));
    }
    return bytes;
}

inline std::string paddedText(std::string text, size_t size) {
    text.resize(size);
    return text;
}

struct AelFile_t {
    uint32_t sequenceId = 0;
    uint32_t time = 1000;
    uint8_t source = 20;
    uint16_t id = 0x0102;
    std::string data = "data";
    uint32_t signature = 0xB68F;
    uint32_t version = 1;
    uint32_t checksumError = 0; ///< flips bits of the checksum
    int announcedLength = -1;   ///< -1: that of the data

    std::string bytes() const {
        size_t length = announcedLength < 0 ? data.size() : static_cast<size_t>(announcedLength);
        std::string covered = paddedText("Other-Enclosure", 64) + paddedText("Other-Blade", 64) +
                              bigEndian(7, 4) + bigEndian(3, 4) + bigEndian(sequenceId, 4) +
                              bigEndian(time, 4) + bigEndian(static_cast<uint32_t>(length), 2) +
                              bigEndian(source, 1) + "\x02\x04\x05" + bigEndian(id, 2) + data;
        return bigEndian(signature, 2) + bigEndian(version, 1) + bigEndian(0, 1) +
               bigEndian(bitwiseChecksum(covered) ^ checksumError, 4) + covered;
    }
};

#endif
