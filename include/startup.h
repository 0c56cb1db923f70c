/**
 * @file
 * Messages and events of the Startup process (endpoint 18).
 */
#ifndef STARTUP_H
#define STARTUP_H

#include "fixed_width.h"

#include <cstddef>

/** Message types of protocol 12, MMSG_E_PROTOCOL_STARTUP. */
enum SUS_MMSG_TYPE_e : U8_t {
    SUS_E_MMSG_NOTIFY_INIT_COMPLETE =
        1, ///< header only: the sender has finished its initialisation
};

/** Event ids of source 18, MMSG_E_EPID_STARTUPMP. */
enum STARTUP_EM_msg_type_e : U8_t {
    SUS_E_EM_MSG_STRING = 1,
    SUS_E_EM_MSG_MMCH = 2,
    SUS_E_EM_MSG_PARTIAL_MMSG = 3,
    SUS_E_EM_MSG_SIGNAL = 4, ///< a process died of a signal: SignalEvent_t
};

/**
 * Data of a SUS_E_EM_MSG_SIGNAL event: 344 bytes, in the byte order of the process that died.
 * All fields are bytes so that the layout is the same for every compiler.
 */
struct SignalEvent_s {
    U8_t info[128];      //   0  siginfo_t as the handler got it, zero if none
    U8_t regs[176];      // 128  register set of the interrupted code, zero if none
    U8_t _start[4];      // 304  0
    U8_t _end[4];        // 308  0
    U8_t _bss_start[4];  // 312  0
    U8_t _data_start[4]; // 316  0
    U8_t pid[4];         // 320  process id, native 32-bit integer
    U8_t name[20];       // 324  text: first argument of the process, at most 19 characters
};
using SignalEvent_t = SignalEvent_s;
static_assert(sizeof(SignalEvent_t) == 344 && alignof(SignalEvent_t) == 1);
static_assert(offsetof(SignalEvent_t, regs) == 128 && offsetof(SignalEvent_t, _start) == 304);
static_assert(offsetof(SignalEvent_t, pid) == 320 && offsetof(SignalEvent_t, name) == 324);

#endif
