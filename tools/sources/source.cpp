#include "sources/source.h"

#include <cstring>
#include <string_view>

namespace sources {
namespace {

std::string_view textOf(const U8_t (&field)[EMP_ID_TEXT_SIZE]) {
    const auto* text = reinterpret_cast<const char*>(field);
    return {text, strnlen(text, sizeof(field))};
}

} // namespace

bool LogChoice::matches(const EmpEvLogHeader_t& header) const {
    return (!enclosure || textOf(header.evEnclosureId) == *enclosure) &&
           (!blade || textOf(header.evBladeId) == *blade) && (!slot || header.evSlotId == *slot) &&
           (!instance || header.evInstanceNumber == *instance);
}

} // namespace sources
