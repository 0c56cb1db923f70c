/**
 * @file
 * The first step of the start-up.
 */
#ifndef EMP_STARTUP_INIT_H
#define EMP_STARTUP_INIT_H

/** Resets all state and connects to the message switch. oMpuParams must be attached. */
void empInit();

#endif
