#include "sources/event.h"

#include <array>

namespace sources {

EventView eventOf(const EvlogRecord_t& record) {
    // A record is its event behind signature, version and checksum.
    const auto* bytes = reinterpret_cast<const U8_t*>(record.header);
    return {reinterpret_cast<const EmpEvLogHeader_t*>(bytes + EMP_CRC_START), record.body};
}

EventView eventOf(std::span<const U8_t> image) {
    return {reinterpret_cast<const EmpEvLogHeader_t*>(image.data()),
            image.subspan(sizeof(EmpEvLogHeader_t))};
}

const char* kindName(Kind kind) {
    constexpr std::array<const char*, 5> names = {"log", "damaged-copy", "alternate", "archive",
                                                  "blade"};
    return names.at(static_cast<size_t>(kind));
}

} // namespace sources
