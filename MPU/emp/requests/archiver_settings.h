/**
 * @file
 * The Event Archiver's address, and the state of the link to it.
 */
#ifndef EMP_REQUESTS_ARCHIVER_SETTINGS_H
#define EMP_REQUESTS_ARCHIVER_SETTINGS_H

#include "mmsg.h"

/**
 * Drops the connection to the archiver and starts one to the address given; address 0 leaves the
 * link off. Answers with success whether or not the connect works.
 * @param mmsg message with an EmpSetEvArchiverMsg_t body, its missing bytes zero
 */
void empRcvSetEventArchiverMsg(MMSG_t* mmsg);

/** Answers with the archiver's address, the link's flag and its counters. */
void empRcvGetEventManagerStatusMsg(MMSG_t* mmsg);

#endif
