#include "loop/wait.h"

#include "diag/debug_line.h"
#include "fault/bugcheck.h"
#include "mmsg/read_ahead.h"
#include "state/control.h"

#include <sys/select.h>

namespace {

fd_set masterReadSet;
fd_set masterWriteSet;
fd_set readSet;
fd_set writeSet;
int highestDescriptor;
bool selectAsked;    ///< in the running pass; else its sets are what would have been asked
int passesUnwritten; ///< since output was written

/** No line waits for longer, however many messages are read ahead. */
constexpr int PASSES_PER_WRITE = 64;

void addArchiverDescriptor(bool toWriteSet) {
    int descriptor = empControl.socketFdEventArchiver;
    if (descriptor > highestDescriptor) {
        highestDescriptor = descriptor;
    }
    if (empControl.socketFdEventArchiverSet == 0) {
        FD_SET(descriptor, &masterReadSet);
        if (toWriteSet) {
            FD_SET(descriptor, &masterWriteSet);
        }
        empControl.socketFdEventArchiverSet = 1;
    }
}

/** Only select tells when a connect has ended. */
bool awaitsConnect() {
    return empControl.socketFdEventArchiver != 0 &&
           FD_ISSET(empControl.socketFdEventArchiver, &masterWriteSet);
}

} // namespace

void empInitSelectSets() {
    FD_ZERO(&masterReadSet);
    FD_ZERO(&masterWriteSet);
    FD_ZERO(&readSet);
    FD_ZERO(&writeSet);
    FD_SET(empControl.socketFdMSM, &masterReadSet);
    highestDescriptor = empControl.socketFdMSM > 0 ? empControl.socketFdMSM : 0;
}

void empUpdateSelectSets() {
    if (!empArchiverFlagSet()) {
        if (highestDescriptor > empControl.socketFdMSM) {
            highestDescriptor = empControl.socketFdMSM;
        }
        empForgetArchiverDescriptor();
        return;
    }
    empDebugLine("main(): Event Archiver is connected.\n");
    if (empControl.socketFdEventArchiver == 0) {
        return;
    }
    bool connecting = empControl.evArchiverSocketState == EMP_E_ARCHIVER_SOCKET_ST_CONNECTED;
    addArchiverDescriptor(connecting);
    if (!connecting) {
        FD_CLR(empControl.socketFdEventArchiver, &masterWriteSet);
    }
}

void empWaitForSockets() {
    bool messageHere = empMsmReadAhead();
    if (!messageHere || ++passesUnwritten >= PASSES_PER_WRITE) {
        empWriteLines();
    }
    readSet = masterReadSet;
    writeSet = masterWriteSet;
    selectAsked = !messageHere || awaitsConnect();
    if (!selectAsked) {
        return;
    }
    struct timeval timeout = {};
    if (!messageHere) {
        timeout = empControl.selectTimeout;
    }
    if (select(highestDescriptor + 1, &readSet, &writeSet, nullptr, &timeout) == -1) {
        EMP_BUGCHECK(EMP_HERE_IN("main"), "Linux select function fails");
    }
}

void empWriteLines() {
    empFlushOutput();
    passesUnwritten = 0;
}

bool empMsmReadable() {
    return empMsmReadAhead() || FD_ISSET(empControl.socketFdMSM, &readSet);
}

EMP_READABLE_e empArchiverReadable() {
    if (empControl.socketFdEventArchiver == 0 ||
        !FD_ISSET(empControl.socketFdEventArchiver, &readSet)) {
        return EMP_E_READABLE_NO;
    }
    return selectAsked ? EMP_E_READABLE_YES : EMP_E_READABLE_NOT_ASKED;
}

bool empArchiverWritable() {
    return empControl.socketFdEventArchiver != 0 &&
           FD_ISSET(empControl.socketFdEventArchiver, &writeSet);
}

void empForgetArchiverDescriptor() {
    if (empControl.socketFdEventArchiver != 0) {
        FD_CLR(empControl.socketFdEventArchiver, &masterReadSet);
        FD_CLR(empControl.socketFdEventArchiver, &masterWriteSet);
        FD_CLR(empControl.socketFdEventArchiver, &readSet);
        FD_CLR(empControl.socketFdEventArchiver, &writeSet);
    }
    empControl.socketFdEventArchiverSet = 0;
}
