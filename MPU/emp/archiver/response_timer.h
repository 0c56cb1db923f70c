/**
 * @file
 * The response timer: inquiries that the Event Archiver does not answer in time.
 */
#ifndef EMP_ARCHIVER_RESPONSE_TIMER_H
#define EMP_ARCHIVER_RESPONSE_TIMER_H

/** Call once a pass. Counts the time of every pending message down and answers what has expired. */
void empProcessResponseTimeout();

#endif
