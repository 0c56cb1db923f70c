/**
 * @file
 * Which stored event an inquiry asks for, and who answers when it is not here.
 */
#ifndef EMP_REQUESTS_INQUIRY_SEARCH_H
#define EMP_REQUESTS_INQUIRY_SEARCH_H

#include "fixed_width.h"
#include "mmsg.h"

/**
 * Finds the event that answers an inquiry of one of the five types, or passes the inquiry on: when
 * the log does not answer, it is relayed to the archiver, or answered with a failure.
 * @param offset receives the record's offset in the log file
 * @return whether the log answers
 */
bool empFindEventOrPassOn(const MMSG_t* mmsg, U32_t* offset);

#endif
