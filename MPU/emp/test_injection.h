/**
 * @file
 * Hooks for a developer. Nothing in the program calls them: they are linked into it to be called
 * from a debugger ("call empTestMsg(1)" while the process stands in select), or from a test.
 */
#ifndef EMP_TEST_INJECTION_H
#define EMP_TEST_INJECTION_H

#include "fixed_width.h"

/**
 * Sends a request to the event manager itself, through the message switch: 1 an event, 2 an inquiry
 * for the first event, 3 a test archiver, 5 a manager-status request.
 * @return the bytes sent; 0, with nothing sent, for any other type
 */
S32_t empTestMsg(U32_t type);

/** Writes a test event into an alternate event log file. @return ALT_EVENT_LOG_STATUS_e */
S32_t empTestAlternateEventLog();

#endif
