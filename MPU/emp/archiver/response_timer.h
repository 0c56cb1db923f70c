/**
 * @file
 * The response timer: inquiries that the Event Archiver does not answer in time.
 */
#ifndef EMP_ARCHIVER_RESPONSE_TIMER_H
#define EMP_ARCHIVER_RESPONSE_TIMER_H

/**
 * Call once a pass. Counts the time of pending inquiries down and answers those that have expired;
 * events on the forward list have no time. What lies behind a record that was freed waits for the
 * next pass.
 */
void empProcessResponseTimeout();

#endif
