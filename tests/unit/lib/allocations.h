/**
 * @file
 * Counts what is taken from the heap, by the library and by libc on its behalf.
 */
#ifndef ALLOCATIONS_H
#define ALLOCATIONS_H

#include <functional>

/** Blocks taken from the heap while a body runs. */
int allocationsOf(const std::function<void()>& body);

#endif
