/**
 * @file
 * Leaves an event as a file for the event manager's next start.
 */
#ifndef EVCTL_ALTERNATE_EVENT_H
#define EVCTL_ALTERNATE_EVENT_H

#include "evctl/wire/event_message.h"
#include "mpu_gbl.h"

namespace evctl {

/** Throws unless the event can be left: the library ends the process for what it does not take. */
void checkAlternateEvent(const EventFields& fields, const Bytes& data);

/**
 * Leaves the event in the blade's directory for such files. Throws when that fails.
 * @param sequenceId only kept for source 18: the order among its events of one second
 */
void leaveAlternateEvent(const EventFields& fields, const Bytes& data, U32_t sequenceId,
                         const MPU_PARAMS_t& params);

} // namespace evctl

#endif
