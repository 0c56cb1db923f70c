#include "event_row.h"

namespace evarchive {
namespace {

// The largest text leaves no room for a NUL.
void putText(const std::string& text, U8_t (&field)[EMP_ID_TEXT_SIZE]) {
    std::copy_n(text.begin(), std::min(text.size(), sizeof(field)), field);
}

EmpEvLogHeader_t headerOf(const EventRow& row, const SeriesKey& key) {
    EmpEvLogHeader_t header{};
    putText(key.blade.enclosure, header.evEnclosureId);
    putText(key.blade.blade, header.evBladeId);
    header.evSlotId = key.blade.slot;
    header.evInstanceNumber = key.instance;
    header.evSequenceId = row.sequenceId;
    header.evTime = row.time;
    header.evStructLength = static_cast<U16_t>(row.data.size());
    header.evSource = row.source;
    header.evType = row.type;
    header.evCategory = row.category;
    header.evIdVersion = row.idVersion;
    header.evId = row.event;
    return header;
}

} // namespace

EventRow rowOf(View image, const SeriesKey& key) {
    const auto header = imageOf<EmpEvLogHeader_t>(image);
    const View data = image.subspan(sizeof(header));
    EventRow row{header.evSequenceId, header.evTime, header.evId,
                 header.evSource,     header.evType, header.evCategory,
                 header.evIdVersion,  std::nullopt,  Bytes(data.begin(), data.end())};
    const View given = image.first(sizeof(header));
    if (!std::ranges::equal(given, viewOf(headerOf(row, key)))) {
        row.head.emplace(given.begin(), given.end());
    }
    return row;
}

Bytes imageOfRow(const EventRow& row, const SeriesKey& key) {
    const EmpEvLogHeader_t header = headerOf(row, key);
    const View head = row.head ? View(*row.head) : viewOf(header);
    Bytes image(head.begin(), head.end());
    image.insert(image.end(), row.data.begin(), row.data.end());
    return image;
}

} // namespace evarchive
