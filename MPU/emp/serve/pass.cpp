#include "serve/pass.h"

#include "archiver/pass.h"
#include "diag/debug_line.h"
#include "dispatch.h"
#include "loop/wait.h"
#include "mmsg/stream.h"
#include "state/control.h"

void empServePass() {
    empUpdateSelectSets();
    empWaitForSockets();
    if (empMsmReadable()) {
        empDebugLine("main(): The socket to MSM is selected.\n");
        empReceiveMmsg();
        empProcEventMmsgMsg(reinterpret_cast<MMSG_t*>(empControl.empInMsg));
    }
    empServeEventArchiver();
}
