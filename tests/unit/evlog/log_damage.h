/**
 * @file
 * Small logs, and acts of damage.
 */
#ifndef LOG_DAMAGE_H
#define LOG_DAMAGE_H

#include "log_image.h"

#include <algorithm>
#include <random>

namespace test {

inline LogImage closed(LogImage log, size_t size = RING) {
    log.dummy();
    log.zerosTo(size);
    return log;
}

// Short files are walked like whole ones, and many of them sooner.
constexpr size_t SHORT_FILE = 20'000;

inline LogImage unwrapped() {
    LogImage log;
    log.firstEntry();
    log.events(1, 12);
    return closed(log, SHORT_FILE);
}

inline LogImage wrapped(size_t gap) {
    LogImage log;
    log.events(1000, 6);
    log.raw(std::string(gap, 'g'));
    log.events(500, 6);
    return closed(log, SHORT_FILE);
}

/** One random act of damage within the part of the file that is in use. */
inline void damage(std::string& bytes, std::minstd_rand& random) {
    size_t at = random() % std::min<size_t>(bytes.size(), 3000);
    switch (random() % 7) {
    case 0:
        bytes[at] = static_cast<char>(random());
        break;
    case 1:
        bytes.insert(at, std::string(1 + random() % 400, 'i'));
        break;
    case 2:
        bytes.erase(at, 1 + random() % 400);
        break;
    case 3:
        bytes.resize(at);
        break;
    case 4: // a record of any id at a border of records
        bytes.replace(at / 200 * 200, 200,
                      record({.id = static_cast<uint32_t>(random() % 1010)}, std::string(40, 'r')));
        break;
    case 5: // a header of any source, type and length
        bytes.replace(at, 160,
                      record({.id = static_cast<uint32_t>(random() % 20),
                              .length = static_cast<int>(random() % 65'536),
                              .source = static_cast<uint8_t>(random() % 50),
                              .type = static_cast<uint8_t>(random() % 5),
                              .eventId = static_cast<uint16_t>(random() % 3),
                              .headerCrc = true},
                             ""));
        break;
    default: // a stretch of zeros
        bytes.replace(at, 100, std::string(100, '\0'));
        break;
    }
}

} // namespace test

#endif
