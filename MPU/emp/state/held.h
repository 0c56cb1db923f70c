/**
 * @file
 * What a batch of events (serve/batch.h) holds back while it is taken in: their records, unless
 * those go out at once, and their copies. While nothing is held back, which is the rule, each call
 * is made at its place.
 */
#ifndef EMP_STATE_HELD_H
#define EMP_STATE_HELD_H

#include "fixed_width.h"

/** Room for the records, and for the copies, of all messages that can be read ahead. */
constexpr U32_t EMP_HELD_SIZE = 65'536;

/** Things of one kind that lie behind one another. */
struct EmpHeldBytes_t {
    U32_t length;
    U32_t last; ///< of these, the length of what came last
    U8_t bytes[EMP_HELD_SIZE];
};

struct EmpHeld_t {
    void (*settle)();       ///< writes the records and sends the copies; null: nothing is held back
    bool recordsToo;        ///< else only copies
    S64_t recordsAt;        ///< offset in the log file
    EmpHeldBytes_t records; ///< one behind the other there too
    EmpHeldBytes_t copies;  ///< messages to the switch
};
extern EmpHeld_t empHeld;

/** Adds a thing of @p length bytes. @return where they go; null: there is no room */
U8_t* empHoldBytes(EmpHeldBytes_t* held, U32_t length);

/** Call before what must not overtake a copy: the end of the process, another message. */
inline void empSettle() {
    if (empHeld.settle != nullptr) {
        empHeld.settle();
    }
}

/** Call before what must not overtake a record, or cannot be taken back with it. May not return:
 * records that cannot be written are taken back with all that was done since, the caller too. */
inline void empSettleRecords() {
    if (empHeld.recordsToo) {
        empHeld.settle();
    }
}

#endif
