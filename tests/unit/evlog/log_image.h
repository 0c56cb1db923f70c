/**
 * @file
 * Builds log files byte by byte, on its own: no structure, no checksum and no constant of the
 * product is used, so that a test of a reader does not believe the reader.
 */
#ifndef LOG_IMAGE_H
#define LOG_IMAGE_H

#include "evlog/evlog.h"

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace test {

constexpr size_t RING = 1'600'000;

/** CRC-32C, bit by bit, in the byte order in which it is stored. */
inline std::string storedCrc(const std::string& bytes) {
    uint32_t crc = 0xFFFFFFFF;
    for (unsigned char byte : bytes) {
        crc ^= byte;
        for (int bit = 0; bit < 8; bit++) {
            crc = (crc & 1) != 0 ? (crc >> 1) ^ 0x82F63B78 : crc >> 1;
        }
    }
    crc = ~crc;
    std::string stored;
    for (int at = 0; at < 4; at++) { // least significant byte first: the value is byte-reversed
        stored.push_back(static_cast<char>(crc >> (8 * at)));
    }
    return stored;
}

inline std::string bigEndian(uint32_t value, int width) {
    std::string bytes;
    for (int at = width - 1; at >= 0; at--) {
        bytes.push_back(static_cast<char>(value >> (8 * at)));
    }
    return bytes;
}

inline std::string text64(const std::string& text) {
    return text + std::string(64 - text.size(), '\0');
}

/** The fields of a record, in the order of the file. */
struct RecordFields {
    uint8_t version = 1;
    std::string enclosure = "CHASSIS-1";
    std::string blade = "BLADE-A";
    uint32_t slot = 2;
    uint32_t instance = 7;
    uint32_t id = 0;
    uint32_t time = 1'164'117'600;
    int length = -1; ///< evStructLength; -1: that of the body
    uint8_t source = 18;
    uint8_t type = 2;
    uint8_t category = 4;
    uint8_t idVersion = 1;
    uint16_t eventId = 300;
    bool headerCrc = false; ///< the checksum covers the header only
};

inline std::string record(const RecordFields& fields, const std::string& body) {
    uint32_t length = fields.length < 0 ? static_cast<uint32_t>(body.size())
                                        : static_cast<uint32_t>(fields.length);
    std::string covered = text64(fields.enclosure) + text64(fields.blade) +
                          bigEndian(fields.slot, 4) + bigEndian(fields.instance, 4) +
                          bigEndian(fields.id, 4) + bigEndian(fields.time, 4) +
                          bigEndian(length, 2) + bigEndian(fields.source, 1) +
                          bigEndian(fields.type, 1) + bigEndian(fields.category, 1) +
                          bigEndian(fields.idVersion, 1) + bigEndian(fields.eventId, 2);
    std::string crc = storedCrc(fields.headerCrc ? covered : covered + body);
    return std::string("\xB6\x8F", 2) + bigEndian(fields.version, 1) + std::string(1, '\0') + crc +
           covered + body;
}

/** A log file that grows from its top. */
class LogImage {
  public:
    std::string bytes;

    /** An event with a body of @p bodyLength bytes. @return its offset */
    size_t event(uint32_t id, size_t bodyLength = 40) {
        return add(record({.id = id}, std::string(bodyLength, 'e')));
    }
    /** The first entry of a log that has never gone round. */
    size_t firstEntry(uint32_t id = 0) {
        return add(record({.id = id, .source = 27, .type = 1, .category = 2, .eventId = 2},
                          std::string("CHASSIS-1") + std::string(31, '\0')));
    }
    size_t dummy(int length = 65'535) {
        return add(record({.length = length,
                           .source = 27,
                           .type = 1,
                           .category = 2,
                           .eventId = 1,
                           .headerCrc = true},
                          ""));
    }
    size_t raw(const std::string& more) { return add(more); }
    void zerosTo(size_t size = RING) { bytes.resize(size, '\0'); }

    /** Events of 200 bytes with consecutive ids. */
    void events(uint32_t firstId, uint32_t count) {
        for (uint32_t id = firstId; id < firstId + count; id++) {
            event(id);
        }
    }
    void damage(size_t offset) { bytes.at(offset) = static_cast<char>(bytes.at(offset) ^ 0x5A); }

  private:
    size_t add(const std::string& more) {
        size_t offset = bytes.size();
        bytes += more;
        return offset;
    }
};

/** What a walk gave. */
struct Walked {
    EvlogState_t state;
    std::vector<EvlogRecord_t> records; // dummy entries left out
    std::vector<EvlogRecord_t> dummies;
    std::vector<EvlogFinding_t> findings;
    EvlogImage_t image; // the records lead into it
};

inline EvlogImage_t imageOf(const std::string& bytes) {
    return evlogImageOf({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()});
}

inline Walked walk(const std::string& bytes, const EvlogIdentity_t* identity = nullptr) {
    Walked walked;
    walked.image = imageOf(bytes);
    walked.state = evlogWalk(
        walked.image,
        {.onRecord =
             [&](const EvlogRecord_t& found) {
                 (found.role == EVLOG_E_ROLE_DUMMY ? walked.dummies : walked.records)
                     .push_back(found);
             },
         .onFinding = [&](const EvlogFinding_t& finding) { walked.findings.push_back(finding); }},
        identity);
    return walked;
}

} // namespace test

/** In the global namespace, beside the type, so that GoogleTest finds it. */
inline bool operator==(const EvlogFinding_t& left, const EvlogFinding_t& right) {
    return left.offset == right.offset && left.bytes == right.bytes && left.reason == right.reason;
}

inline void PrintTo(const EvlogFinding_t& finding, std::ostream* os) {
    *os << finding.offset << "+" << finding.bytes << " " << evlogReasonText(finding.reason);
}

#endif
