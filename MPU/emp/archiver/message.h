/**
 * @file
 * Messages from the Event Archiver: check, count, hand over.
 */
#ifndef EMP_ARCHIVER_MESSAGE_H
#define EMP_ARCHIVER_MESSAGE_H

#include "emp_mesgs.h"

/** Checks a whole message, counts it and hands it to the handler of its type. Nothing is answered,
 * and nothing that is wrong closes the connection. */
void empProcEventArchiverMsg(const EmpEvArchiverMsg_t* message);

#endif
