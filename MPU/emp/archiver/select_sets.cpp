#include "archiver/select_sets.h"

#include "diag/debug_line.h"
#include "fault/bugcheck.h"
#include "state/control.h"

#include <sys/select.h>

namespace {

fd_set masterReadSet;
fd_set masterWriteSet;
fd_set readSet;
fd_set writeSet;
int highestDescriptor;

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

void empSelect() {
    empFlushOutput();
    readSet = masterReadSet;
    writeSet = masterWriteSet;
    struct timeval timeout = empControl.selectTimeout;
    if (select(highestDescriptor + 1, &readSet, &writeSet, nullptr, &timeout) == -1) {
        EMP_BUGCHECK(EMP_HERE_IN("main"), "Linux select function fails");
    }
}

bool empMsmSelected() {
    return FD_ISSET(empControl.socketFdMSM, &readSet);
}

bool empArchiverSelectedToRead() {
    return empControl.socketFdEventArchiver != 0 &&
           FD_ISSET(empControl.socketFdEventArchiver, &readSet);
}

bool empArchiverSelectedToWrite() {
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
