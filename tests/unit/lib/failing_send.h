/**
 * @file
 * Sending, which a test can count, fail or cut.
 */
#ifndef FAILING_SEND_H
#define FAILING_SEND_H

#include "failing_call.h"

#include <cstddef>
#include <sys/types.h>

extern FailingCall failingSend;
extern size_t sendLimit; ///< bytes that a send takes at most; 0: all

extern "C" ssize_t __real_send(int fd, const void* data, size_t size, int flags);

#endif
