#include "state/held.h"

EmpHeld_t empHeld;

U8_t* empHoldBytes(EmpHeldBytes_t* held, U32_t length) {
    if (length > EMP_HELD_SIZE - held->length) {
        return nullptr;
    }
    U8_t* at = held->bytes + held->length;
    held->length += length;
    held->last = length;
    return at;
}
