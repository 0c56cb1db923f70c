/**
 * @file
 * Log file images, written byte by byte: an encoder of its own, so that a mistake of the product's
 * structures or checksum does not hide behind itself.
 */
#ifndef TESTS_UNIT_STORE_LOG_IMAGE_H
#define TESTS_UNIT_STORE_LOG_IMAGE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace logimage {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t FILE_SIZE = 1'600'000;
constexpr uint32_t HEADER = 160;
constexpr uint32_t LAST_HEADER = FILE_SIZE - HEADER;

/** The blade of all tests. The enclosure id is longer than the 24 bytes that a first entry quotes.
 */
constexpr char ENCLOSURE[] = "ENCLOSURE-SERIAL-0123456789-ABC";
constexpr char BLADE[] = "BLADE-0042";
constexpr uint32_t SLOT = 3;
constexpr uint32_t TIME = 0x65A0B0C0;

/** CRC-32C, its four bytes reversed. */
uint32_t checksum(const uint8_t* data, size_t length);

/** A record before it is encoded; every field can be given a wrong value. */
struct Record {
    uint16_t signature = 0xB68F;
    uint8_t version = 1;
    uint8_t reserved = 0;
    std::string enclosure = ENCLOSURE;
    std::string blade = BLADE;
    uint32_t slot = SLOT;
    uint32_t instance = 0;
    uint32_t id = 0;
    uint32_t time = TIME;
    uint16_t length = 0; ///< as stored
    uint8_t source = 17;
    uint8_t type = 1;
    uint8_t category = 2;
    uint8_t idVersion = 1;
    uint16_t evId = 7;
    Bytes body{};

    /** Event with a body of @p size bytes that depends on the id. */
    static Record event(uint32_t id, size_t size = 0, uint32_t instance = 0);
    static Record dummy(uint16_t length, uint32_t instance = 0);
    static Record first(uint32_t id = 0, uint32_t instance = 0);
};

/** The bytes of a record; the checksum covers the body unless the record is a dummy. */
Bytes encode(const Record& record);

/** Stores the checksum anew after bytes of a header (and body) have been changed. */
void sealAgain(Bytes& record);

/** A file under construction. */
class Image {
  public:
    Image() = default;
    explicit Image(Bytes start) : bytes(std::move(start)) {}

    Image& add(const Record& record);
    Image& add(const Bytes& raw);
    Image& event(uint32_t id, size_t size = 0, uint32_t instance = 0);
    Image& fill(size_t count, uint8_t value);
    /** A dummy of 65,535 and zeros up to the end of the file. */
    Image& dummyToEnd(uint32_t instance = 0);
    /** Zeros up to @p size. */
    Image& zerosTo(size_t size = FILE_SIZE);
    Image& insert(size_t offset, const Bytes& raw);
    Image& flip(size_t offset, uint8_t mask = 0x5A);
    Image& truncate(size_t size);

    uint32_t size() const { return static_cast<uint32_t>(bytes.size()); }

    Bytes bytes{};
};

/** First entry and events with ids 1 to @p last, each body of @p size bytes. */
Image unwrapped(uint32_t last, size_t size = 40);

/** First entry and events that end exactly at @p end. @p nextId receives the id behind the last. */
Image unwrappedTo(uint32_t end, uint32_t& nextId);

/** What wrapped() built. */
struct Wrapped {
    Image image;
    uint32_t write;     ///< end of the newest record
    uint32_t start;     ///< the oldest record
    uint32_t oldestId;  ///< its id
    uint32_t nextId;    ///< id behind the newest
    uint32_t inFile;    ///< records
    uint32_t dummy;     ///< offset of the dummy at the bottom
    uint32_t oldOffset; ///< offset of the second oldest record
};

/**
 * A full log that has been written round: @p newest records of @p newSize bytes at the top, a gap,
 * and old records of @p oldSize bytes down to a dummy with less than an old record's room.
 */
Wrapped wrapped(uint32_t newest, size_t newSize, size_t oldSize, uint32_t firstId = 0);

/**
 * A wrapped log whose newest records (ids from 1000 on) have nearly reached the bottom: no gap,
 * then
 * @p oldRecords of 160 bytes with the ids before 1000, then @p bottom bytes: a dummy, or zeros.
 */
Image nearBottom(uint32_t oldRecords, uint32_t bottom, bool withDummy, uint32_t& nextId,
                 uint32_t topId = 1000);

uint32_t get32(const Bytes& bytes, size_t offset);
uint16_t get16(const Bytes& bytes, size_t offset);
void put32(Bytes& bytes, size_t offset, uint32_t value);
void put16(Bytes& bytes, size_t offset, uint16_t value);

/** Part of a file; what lies behind its end is missing from the result. */
Bytes slice(const Bytes& bytes, uint64_t offset, uint64_t length);

Bytes zeros(uint64_t count);

/** The bytes of hexadecimal digits. */
Bytes hex(const std::string& digits);

} // namespace logimage

#endif
