/**
 * @file
 * Event messages: built for the event manager, and recognised when they come from it.
 */
#ifndef EVCTL_EVENT_MESSAGE_H
#define EVCTL_EVENT_MESSAGE_H

#include "evctl/wire/session.h"
#include "sources/event.h"

#include <optional>
#include <string>

namespace evctl {

using sources::EventView;

/** What the sender of an event says of it; everything else the event manager fills in. */
struct EventFields {
    U32_t source; ///< the sender's endpoint
    U8_t type;
    U8_t category;
    U8_t idVersion;
    U16_t id;
};

/** A message that has the event manager log an event. Throws for more than 3848 bytes of data. */
Bytes makeEventMessage(const EventFields& fields, const Bytes& data);

/** Pairs of hexadecimal digits, blanks allowed between pairs; throws for anything else. */
Bytes parseHexData(const std::string& text);

/** Content of a file; throws when it cannot be read or is longer than 3848 bytes. */
Bytes readDataFile(const std::string& path);

/** What a message from the switch is. */
enum class MessageKind {
    EVENT,     ///< an event, logged just now or replayed
    BAD_EVENT, ///< it should be one, but is too short
    OTHER,
};

/** @param event receives the event of an EVENT; it leads into @p message */
MessageKind readEventMessage(const Bytes& message, EventView* event);

} // namespace evctl

#endif
