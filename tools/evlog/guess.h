/**
 * @file
 * What a file may be that is no event log.
 */
#ifndef EVLOG_GUESS_H
#define EVLOG_GUESS_H

#include "evlog/evlog.h"

/** Whether a file is an event log, be it a damaged one: it holds a valid record, begins like one,
 * or has the size that every log has. */
bool evlogIsLog(const EvlogImage_t& image);

/** What the file may be instead: "an SQLite database". */
const char* evlogGuess(const EvlogImage_t& image);

#endif
