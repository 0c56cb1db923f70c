/**
 * @file
 * Local messages: check, count, hand over.
 */
#ifndef EMP_DISPATCH_H
#define EMP_DISPATCH_H

#include "mmsg.h"

/** Checks a whole local message, counts it and hands it to the handler of its type. */
void empProcEventMmsgMsg(MMSG_t* msg);

#endif
