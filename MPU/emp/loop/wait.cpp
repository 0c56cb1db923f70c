#include "loop/wait.h"

#include "diag/debug_line.h"
#include "fault/bugcheck.h"
#include "mmsg/read_ahead.h"
#include "state/control.h"

#include <ctime>
#include <sched.h>
#include <sys/select.h>

namespace {

fd_set masterReadSet;
fd_set masterWriteSet;
fd_set readSet;
fd_set writeSet;
int highestDescriptor;
bool selectAsked;     ///< in the running pass; else its sets are what would have been asked
bool messageFound;    ///< by the running pass
int passesUnwritten;  ///< since output was written
int waitsWithoutLook; ///< that are to come

/** No line waits for longer, however many messages are read ahead. */
constexpr int PASSES_PER_WRITE = 64;

/** Where messages come one at a time, one of them would wait for the lines of all before it. */
constexpr int SINGLE_MESSAGES_PER_WRITE = 4;

/** Waits after a look in vain before the next one: on several processors most are. */
constexpr int WAITS_WITHOUT_LOOK = 1000;

/** Who gets the processor back later has given it to one that works on without us. */
constexpr S64_t SOON = 1'000'000;

S64_t nanoseconds() {
    constexpr S64_t perSecond = 1'000'000'000;
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * perSecond + now.tv_nsec;
}

/**
 * Lets those run who have something to do for us, and looks whether the next message is here then.
 * On one processor that is above all the receiver of what the last pass has sent: it need not wait
 * until lines are written, and they go out with those of later passes.
 */
bool messageComesSoon() {
    if (waitsWithoutLook > 0) {
        waitsWithoutLook--;
        return false;
    }
    const S64_t before = nanoseconds();
    sched_yield();
    bool came = empMsmLook();
    if (!came || nanoseconds() - before > SOON) {
        waitsWithoutLook = WAITS_WITHOUT_LOOK;
    }
    return came;
}

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
    int passesPerWrite = empMsmReadAhead() ? PASSES_PER_WRITE : SINGLE_MESSAGES_PER_WRITE;
    bool messageHere = empMsmReadAhead() || (messageFound && messageComesSoon());
    if (!messageHere || ++passesUnwritten >= passesPerWrite) {
        empWriteLines();
    }
    readSet = masterReadSet;
    writeSet = masterWriteSet;
    selectAsked = !messageHere || awaitsConnect();
    messageFound = messageHere;
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
    messageFound = messageHere || FD_ISSET(empControl.socketFdMSM, &readSet);
}

void empWriteLines() {
    empFlushOutput();
    passesUnwritten = 0;
}

bool empMsmReadable() {
    return messageFound;
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
