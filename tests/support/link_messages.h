/**
 * @file
 * The bytes that a blade sends on the archiver link, and a look into those that come back, written
 * field by field from the format: no code of the product takes part.
 */
#ifndef TEST_LINK_MESSAGES_H
#define TEST_LINK_MESSAGES_H

#include "fixed_width.h"

#include <string>
#include <vector>

namespace support {

using Bytes = std::vector<U8_t>;

inline void put16(Bytes& bytes, U32_t value) {
    bytes.push_back(static_cast<U8_t>(value >> 8));
    bytes.push_back(static_cast<U8_t>(value));
}

inline void put32(Bytes& bytes, U32_t value) {
    put16(bytes, value >> 16);
    put16(bytes, value & 0xFFFF);
}

/** A text of 64 bytes, filled up with zeros. */
inline void putText(Bytes& bytes, const std::string& text) {
    bytes.insert(bytes.end(), text.begin(), text.end());
    bytes.insert(bytes.end(), 64 - text.size(), 0);
}

inline U32_t get16(const Bytes& bytes, size_t offset) {
    return (U32_t{bytes.at(offset)} << 8) | bytes.at(offset + 1);
}

inline U32_t get32(const Bytes& bytes, size_t offset) {
    return (get16(bytes, offset) << 16) | get16(bytes, offset + 2);
}

inline std::string getText(const Bytes& bytes, size_t offset) {
    const std::string text(bytes.begin() + static_cast<std::ptrdiff_t>(offset),
                           bytes.begin() + static_cast<std::ptrdiff_t>(offset) + 64);
    return text.c_str();
}

/** Which log. */
struct LogName {
    std::string enclosure = "ENC-A";
    std::string blade = "BLADE-1";
    U32_t slot = 1;
    U32_t instance = 1;
};

struct EventFields {
    LogName log = {};
    U32_t id = 0;
    Bytes data = {1, 2, 3};
    U32_t time = 1000;
    U8_t source = 27;
};

/** The 16 bytes in front of every request. */
inline Bytes requestHeader(U32_t bodyLength, U32_t type, U32_t handle) {
    Bytes bytes;
    put16(bytes, 1); // version
    put16(bytes, bodyLength);
    put16(bytes, type);
    put16(bytes, 1); // request
    put32(bytes, 0); // return code
    put32(bytes, handle);
    return bytes;
}

inline void putLog(Bytes& bytes, const LogName& log) {
    putText(bytes, log.enclosure);
    putText(bytes, log.blade);
    put32(bytes, log.slot);
    put32(bytes, log.instance);
}

/** The body of an event message: 152 bytes and the data. */
inline Bytes eventBody(const EventFields& event) {
    Bytes bytes;
    putLog(bytes, event.log);
    put32(bytes, event.id);
    put32(bytes, event.time);
    put16(bytes, static_cast<U32_t>(event.data.size()));
    bytes.insert(bytes.end(), {event.source, 1, 2, 1}); // type, category, id version
    put16(bytes, 3);                                    // event id
    bytes.insert(bytes.end(), event.data.begin(), event.data.end());
    return bytes;
}

inline Bytes eventMessage(const EventFields& event) {
    const Bytes body = eventBody(event);
    Bytes bytes = requestHeader(static_cast<U32_t>(body.size()), 1, 0);
    bytes.insert(bytes.end(), body.begin(), body.end());
    return bytes;
}

/** Types of inquiries. */
enum : U32_t { FIRST = 1, NEXT = 2, EXACT = 3, PREVIOUS = 4, LAST = 5 };

inline Bytes inquiryBody(U32_t type, const LogName& log, U32_t id) {
    Bytes bytes;
    put32(bytes, type);
    putLog(bytes, log);
    put32(bytes, id);
    return bytes;
}

inline Bytes inquiryMessage(U32_t type, const LogName& log, U32_t id, U32_t handle) {
    Bytes bytes = requestHeader(144, 2, handle);
    const Bytes body = inquiryBody(type, log, id);
    bytes.insert(bytes.end(), body.begin(), body.end());
    return bytes;
}

/** The body of a status request, 176 bytes. @param data of the oldest event in the blade's log */
inline Bytes statusBody(const LogName& log, U32_t firstId, const Bytes& data) {
    Bytes bytes;
    putLog(bytes, log);
    put32(bytes, firstId);
    put16(bytes, static_cast<U32_t>(data.size()));
    put16(bytes, 0);
    for (size_t i = 0; i < 24; ++i) {
        bytes.push_back(i < data.size() ? data[i] : U8_t{0});
    }
    put32(bytes, 0);
    put32(bytes, 0);
    return bytes;
}

/** A status request, 196 bytes: four more than its header says. */
inline Bytes statusRequest(const LogName& log, U32_t firstId, const Bytes& data, U32_t handle) {
    Bytes bytes = requestHeader(176, 6, handle);
    const Bytes body = statusBody(log, firstId, data);
    bytes.insert(bytes.end(), body.begin(), body.end());
    put32(bytes, 0);
    return bytes;
}

/** One behind the other. */
inline Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

} // namespace support

#endif
