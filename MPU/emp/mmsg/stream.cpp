#include "mmsg/stream.h"

#include "diag/debug_line.h"
#include "diag/hex_dump.h"
#include "fault/bugcheck.h"
#include "mmsg.h"
#include "mmsg/read_ahead.h"
#include "state/control.h"

#include <cstring>
#include <sys/socket.h>

namespace {

constexpr char MAIN[] = "main";

/** Lives across messages: what a peek does not reach keeps the bytes of an earlier header. */
U8_t headerBuffer[MMCH_SIZE];

/**
 * Receives until @p length bytes have been counted.
 * KEEP: every receive goes to the start of @p buffer. A message arrives in one piece; of one that
 * does not, only the last piece is left. At the end of the stream this spins.
 */
void receive(U8_t* buffer, U32_t length, int flags) {
    U32_t got = 0;
    while (got < length) {
        ssize_t result = empReceiveFromMsm(buffer, length - got, flags);
        if (result == -1) {
            // KEEP: the header is dumped, with the result as its length, also when the body failed.
            empHexDump(headerBuffer, -1);
            EMP_BUGCHECK(EMP_HERE_IN(MAIN),
                         "Linux recv function fails, MSG_PEEK readSize = [%d] is wrong", -1);
        }
        got += static_cast<U32_t>(result);
        if (got < length) {
            empFlushOutput();
        }
    }
}

} // namespace

void empReceiveMmsg() {
    receive(headerBuffer, sizeof(headerBuffer), MSG_PEEK);
    U16_t length = reinterpret_cast<const MMCH_t*>(headerBuffer)->mmsg_length;
    // Behind the message zeros are read, never bytes of an earlier one. Less than a header leaves
    // the buffer to the message before it.
    if (length >= MMCH_SIZE) {
        memset(empControl.empInMsg, 0, EMP_WORK_SPACE_SIZE);
    }
    receive(empControl.empInMsg, length, 0);
}
