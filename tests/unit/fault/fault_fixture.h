/**
 * @file
 * A control block whose every field has a value of its own, and what a bug-check makes of it: lines
 * and bytes, written down by hand.
 */
#ifndef FAULT_FIXTURE_H
#define FAULT_FIXTURE_H

#include "fixed_width.h"

/** Fills all fields but the receive buffer and empDebug. The log file is descriptor 40. */
void fillControlBlock();

constexpr int LOG_DESCRIPTOR = 40;

extern const char CONTROL_LINES[];    ///< the lines, without time stamps; empDebug 1
extern const U8_t CONTROL_IMAGE[460]; ///< the image; empDebug 1

#endif
