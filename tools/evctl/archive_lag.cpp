/** How far an archive has come with a log. */
#include "evctl/archive_commands.h"
#include "evctl/options.h"
#include "reader.h"

namespace evctl {

std::optional<U32_t> newestArchived(const std::string& place, const EmpEvRecord_t& event) {
    const auto store = evarchive::openForReading(place);
    const evarchive::SeriesKey key{
        .blade = {.enclosure = fieldText(event.evEnclosureId, sizeof(event.evEnclosureId)),
                  .blade = fieldText(event.evBladeId, sizeof(event.evBladeId)),
                  .slot = event.evSlotId},
        .instance = event.evInstanceNumber};
    const auto series = store->findSeries(key);
    const auto generation = series ? store->newestGeneration(*series) : std::nullopt;
    return generation ? store->highestId(generation->number) : std::nullopt;
}

} // namespace evctl
