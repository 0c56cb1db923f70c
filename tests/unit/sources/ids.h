/**
 * @file
 * What a source yields, told by sequence ids.
 */
#ifndef SOURCES_IDS_H
#define SOURCES_IDS_H

#include "sources/source.h"

#include <cstdint>
#include <optional>
#include <vector>

using Ids = std::vector<uint32_t>;

/** The sequence ids of all events that are left in @p source, in its order. */
inline Ids idsOf(sources::Source& source) {
    Ids ids;
    while (std::optional<sources::Event> event = source.next()) {
        ids.push_back(event->view.header->evSequenceId);
    }
    return ids;
}

#endif
