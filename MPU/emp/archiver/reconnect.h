/**
 * @file
 * The reconnect timer of the archiver link.
 */
#ifndef EMP_ARCHIVER_RECONNECT_H
#define EMP_ARCHIVER_RECONNECT_H

/**
 * Call once a pass. Counts reconnectTimeout down while an archiver is configured and not connected,
 * connects when it has expired, and sets selectTimeout to 1 s; otherwise changes nothing.
 */
void empProcessReconnectTimeout();

#endif
