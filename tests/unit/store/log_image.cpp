#include "log_image.h"

#include <algorithm>
#include <array>

namespace logimage {

namespace {

void putText(Bytes& out, const std::string& text) {
    for (size_t i = 0; i < 64; i++) {
        out.push_back(i < text.size() ? static_cast<uint8_t>(text[i]) : uint8_t{0});
    }
}

void append16(Bytes& out, uint16_t value) {
    out.push_back(static_cast<uint8_t>(value >> 8));
    out.push_back(static_cast<uint8_t>(value & 0xFF));
}

void append32(Bytes& out, uint32_t value) {
    append16(out, static_cast<uint16_t>(value >> 16));
    append16(out, static_cast<uint16_t>(value & 0xFFFF));
}

/** What CRC-32C makes of a byte, bit by bit. */
constexpr uint32_t divided(uint32_t byte) {
    for (int bit = 0; bit < 8; bit++) {
        byte = (byte & 1U) != 0 ? (byte >> 1) ^ 0x82F63B78U : byte >> 1;
    }
    return byte;
}

/** Of each byte once: a log of 1.6 MB is summed up some thousand times. */
constexpr std::array<uint32_t, 256> DIVIDED = [] {
    std::array<uint32_t, 256> table{};
    for (uint32_t byte = 0; byte < 256; byte++) {
        table[byte] = divided(byte);
    }
    return table;
}();

} // namespace

uint32_t checksum(const uint8_t* data, size_t length) {
    uint32_t crc = 0xFFFFFFFFU;
    for (size_t i = 0; i < length; i++) {
        crc = (crc >> 8) ^ DIVIDED[(crc ^ data[i]) & 0xFFU];
    }
    crc = ~crc;
    return ((crc & 0xFFU) << 24) | ((crc & 0xFF00U) << 8) | ((crc >> 8) & 0xFF00U) | (crc >> 24);
}

Record Record::event(uint32_t id, size_t size, uint32_t instance) {
    Record record;
    record.id = id;
    record.instance = instance;
    record.length = static_cast<uint16_t>(size);
    for (size_t i = 0; i < size; i++) {
        record.body.push_back(static_cast<uint8_t>(0x20 + (i + id) % 90));
    }
    return record;
}

Record Record::dummy(uint16_t length, uint32_t instance) {
    Record record;
    record.instance = instance;
    record.length = length;
    record.source = 27;
    record.evId = 1;
    return record;
}

Record Record::first(uint32_t id, uint32_t instance) {
    Record record;
    record.id = id;
    record.instance = instance;
    record.length = 40;
    record.source = 27;
    record.evId = 2;
    record.body.assign(40, 0);
    std::copy_n(ENCLOSURE, 24, record.body.begin());
    return record;
}

Bytes encode(const Record& record) {
    Bytes out;
    append16(out, record.signature);
    out.push_back(record.version);
    out.push_back(record.reserved);
    append32(out, 0);
    putText(out, record.enclosure);
    putText(out, record.blade);
    append32(out, record.slot);
    append32(out, record.instance);
    append32(out, record.id);
    append32(out, record.time);
    append16(out, record.length);
    out.push_back(record.source);
    out.push_back(record.type);
    out.push_back(record.category);
    out.push_back(record.idVersion);
    append16(out, record.evId);
    out.insert(out.end(), record.body.begin(), record.body.end());
    sealAgain(out);
    return out;
}

void sealAgain(Bytes& record) {
    bool isDummy = record[154] == 27 && get16(record, 158) == 1;
    size_t length = isDummy ? 152 : record.size() - 8;
    put32(record, 4, checksum(record.data() + 8, length));
}

Image& Image::add(const Record& record) {
    return add(encode(record));
}

Image& Image::add(const Bytes& raw) {
    bytes.insert(bytes.end(), raw.begin(), raw.end());
    return *this;
}

Image& Image::event(uint32_t id, size_t size, uint32_t instance) {
    return add(Record::event(id, size, instance));
}

Image& Image::fill(size_t count, uint8_t value) {
    bytes.insert(bytes.end(), count, value);
    return *this;
}

Image& Image::dummyToEnd(uint32_t instance) {
    add(Record::dummy(65535, instance));
    return zerosTo();
}

Image& Image::zerosTo(size_t size) {
    bytes.resize(std::max(size, bytes.size()), 0);
    return *this;
}

Image& Image::insert(size_t offset, const Bytes& raw) {
    bytes.insert(bytes.begin() + static_cast<std::ptrdiff_t>(offset), raw.begin(), raw.end());
    return *this;
}

Image& Image::flip(size_t offset, uint8_t mask) {
    bytes.at(offset) = static_cast<uint8_t>(bytes.at(offset) ^ mask);
    return *this;
}

Image& Image::truncate(size_t size) {
    bytes.resize(size);
    return *this;
}

Image unwrapped(uint32_t last, size_t size) {
    Image image;
    image.add(Record::first());
    for (uint32_t id = 1; id <= last; id++) {
        image.event(id, size);
    }
    return image;
}

Image unwrappedTo(uint32_t end, uint32_t& nextId) {
    constexpr uint32_t LARGEST = HEADER + 3848;
    Image image;
    image.add(Record::first());
    nextId = 1;
    while (end - image.size() > 2 * LARGEST) {
        image.event(nextId++, LARGEST - HEADER);
    }
    uint32_t half = (end - image.size()) / 2;
    image.event(nextId++, half - HEADER);
    image.event(nextId++, end - image.size() - HEADER);
    return image;
}

Wrapped wrapped(uint32_t newest, size_t newSize, size_t oldSize, uint32_t firstId) {
    // The old generation is laid out over the whole file, the new one then written over its top.
    Image image;
    std::vector<uint32_t> offsets;
    uint32_t id = firstId;
    while (image.size() + 2 * HEADER + oldSize <= FILE_SIZE) {
        offsets.push_back(image.size());
        image.event(id++, oldSize);
    }
    Wrapped result{};
    result.dummy = image.size();
    image.add(Record::dummy(static_cast<uint16_t>(LAST_HEADER - image.size())));
    image.zerosTo();
    Image top;
    for (uint32_t i = 0; i < newest; i++) {
        top.event(id++, newSize);
    }
    std::copy(top.bytes.begin(), top.bytes.end(), image.bytes.begin());
    auto oldest = std::lower_bound(offsets.begin(), offsets.end(), top.size());
    result.write = top.size();
    result.start = *oldest;
    result.oldOffset = *(oldest + 1);
    result.oldestId = firstId + static_cast<uint32_t>(oldest - offsets.begin());
    result.nextId = id;
    result.inFile = id - result.oldestId;
    result.image = std::move(image);
    return result;
}

Image nearBottom(uint32_t oldRecords, uint32_t bottom, bool withDummy, uint32_t& nextId,
                 uint32_t topId) {
    uint32_t write = FILE_SIZE - bottom - HEADER * oldRecords;
    Image image;
    nextId = topId;
    while (write - image.size() > 8016) {
        image.event(nextId++, 3848);
    }
    uint32_t half = (write - image.size()) / 2;
    image.event(nextId++, half - HEADER);
    image.event(nextId++, write - image.size() - HEADER);
    for (uint32_t i = 0; i < oldRecords; i++) {
        image.event(topId - oldRecords + i, 0);
    }
    if (withDummy) {
        image.add(Record::dummy(static_cast<uint16_t>(bottom - HEADER)));
    }
    return image.zerosTo();
}

uint32_t get32(const Bytes& bytes, size_t offset) {
    return (static_cast<uint32_t>(get16(bytes, offset)) << 16) | get16(bytes, offset + 2);
}

uint16_t get16(const Bytes& bytes, size_t offset) {
    return static_cast<uint16_t>((bytes.at(offset) << 8) | bytes.at(offset + 1));
}

void put32(Bytes& bytes, size_t offset, uint32_t value) {
    put16(bytes, offset, static_cast<uint16_t>(value >> 16));
    put16(bytes, offset + 2, static_cast<uint16_t>(value & 0xFFFF));
}

void put16(Bytes& bytes, size_t offset, uint16_t value) {
    bytes.at(offset) = static_cast<uint8_t>(value >> 8);
    bytes.at(offset + 1) = static_cast<uint8_t>(value & 0xFF);
}

Bytes slice(const Bytes& bytes, uint64_t offset, uint64_t length) {
    uint64_t begin = std::min<uint64_t>(offset, bytes.size());
    uint64_t end = std::min<uint64_t>(offset + length, bytes.size());
    return {bytes.begin() + static_cast<std::ptrdiff_t>(begin),
            bytes.begin() + static_cast<std::ptrdiff_t>(end)};
}

Bytes zeros(uint64_t count) {
    Bytes result(static_cast<size_t>(count), 0);
    return result;
}

Bytes hex(const std::string& digits) {
    Bytes result;
    for (size_t i = 0; i + 1 < digits.size(); i += 2) {
        result.push_back(static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    }
    return result;
}

} // namespace logimage
