/**
 * @file
 * Intake of alternate events: events that bring their identity and time along, from the files that
 * a start replays or from a process of the blade.
 */
#ifndef EMP_REQUESTS_ALTERNATE_EVENT_LOG_H
#define EMP_REQUESTS_ALTERNATE_EVENT_LOG_H

#include "mmsg.h"

/**
 * Stores, forwards and copies an event that keeps its enclosure, blade, slot, time, data length and
 * source; only its instance number and sequence id are new. The message is modified in place; no
 * reply is sent.
 */
void empRcvAlternateEventLogMsg(MMSG_t* mmsg);

#endif
