/**
 * @file
 * What the arrival of an event means for the Event Archiver.
 */
#ifndef EMP_ARCHIVER_NEW_EVENT_H
#define EMP_ARCHIVER_NEW_EVENT_H

#include "diag/line_format.h"
#include "fixed_width.h"

/** The lines of empForwardNewEvent(), under its caller's name. */
struct EmpForwardNewTexts_t {
    EmpLineFormat_t<int> directText;     ///< the new event itself is sent: its id
    EmpLineFormat_t<int, int> aheadText; ///< as for empSendCatchUpEvent(): the cursor, the next id
    EmpLineFormat_t<> notOpenText;       ///< the link is up but takes no events yet
};

/**
 * Hands an event that has just been stored to the archiver, or one older event that is still
 * missing there, or writes out what is queued. Does nothing while the connection flag is clear.
 * @param sequenceId of the new event; empSequenceId is already the next one
 */
void empForwardNewEvent(U32_t sequenceId, const EmpForwardNewTexts_t& texts);

#endif
