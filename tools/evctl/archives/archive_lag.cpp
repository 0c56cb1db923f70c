/** How far an archive has come with a log. */
#include "common/text.h"
#include "evctl/archives/archive_commands.h"
#include "reader.h"

namespace evctl {

std::optional<U32_t> newestArchived(const std::string& place, const EmpEvRecord_t& event) {
    const auto store = evarchive::openForReading(place);
    const evarchive::SeriesKey key{
        .blade = {.enclosure = tools::fieldText(event.evEnclosureId, sizeof(event.evEnclosureId)),
                  .blade = tools::fieldText(event.evBladeId, sizeof(event.evBladeId)),
                  .slot = event.evSlotId},
        .instance = event.evInstanceNumber};
    const auto series = store->findSeries(key);
    const auto generation = series ? store->newestGeneration(*series) : std::nullopt;
    return generation ? store->highestId(generation->number) : std::nullopt;
}

} // namespace evctl
