#include "startup/init.h"

#include "archiver/pending.h"
#include "diag/debug_line.h"
#include "fault/bugcheck.h"
#include "startup/ael_file_list.h"
#include "state/control.h"
#include "text64.h"

#include <cstdio>
#include <cstring>
#include <sys/select.h>
#include <sys/socket.h>

namespace {

constexpr char INIT[] = "empInit";

constexpr U32_t FIRST_ARCHIVER_HANDLE = 1000;
constexpr time_t RECONNECT_SECONDS = 300;
constexpr time_t FORWARD_SECONDS = 5;

void resetControlBlock() {
    memset(static_cast<void*>(&empControl), 0, sizeof(empControl));
    memset(static_cast<void*>(eventEntryDatabase), 0, sizeof(eventEntryDatabase));
    memset(nullEmpEnclosureId, 0, sizeof(nullEmpEnclosureId));
    empControl.empWrapOver = EMP_E_WRAP_OVER_FALSE;
    empControl.empDebug = 1;
    empControl.empEventArchiverHandle = FIRST_ARCHIVER_HANDLE;
    empControl.evArchiverSocketState = EMP_E_ARCHIVER_SOCKET_ST_CLOSE;
    empControl.reconnectTimeout.tv_sec = RECONNECT_SECONDS;
    empControl.forwardTimeout.tv_sec = FORWARD_SECONDS;
}

void takeIdentity() {
    empTextCopy(empControl.empEnclosureId, oMpuParams->chassisSN);
    empTextCopy(empControl.empBladeId, oMpuParams->serialStr);
    empControl.empSlotId = oMpuParams->slotId;
}

/** A directory that leaves no room for the socket's name gives a truncated path, which is not
 * connected to. */
bool buildMsmAddress() {
    struct sockaddr_un& address = empControl.socketAddressMSM;
    address.sun_family = AF_UNIX;
    int length = snprintf(address.sun_path, sizeof(address.sun_path), "%.*s%s",
                          static_cast<int>(EMP_DIRECTORY_TEXT_SIZE), oMpuParams->mmsgDirectory,
                          EMP_MSM_SOCKET_NAME);
    return length < static_cast<int>(sizeof(address.sun_path));
}

void connectToMsm() {
    empControl.socketFdMSM = socket(AF_UNIX, SOCK_STREAM, 0);
    // select cannot watch a descriptor beyond its sets.
    if (empControl.socketFdMSM == -1 || empControl.socketFdMSM >= FD_SETSIZE) {
        EMP_BUGCHECK(EMP_HERE_IN(INIT), "Linux socket function fails for EMP socket!");
    }
    bool complete = buildMsmAddress();
    empFlushOutput();
    const auto* address = reinterpret_cast<const struct sockaddr*>(&empControl.socketAddressMSM);
    if (!complete ||
        connect(empControl.socketFdMSM, address, sizeof(empControl.socketAddressMSM)) == -1) {
        EMP_BUGCHECK(EMP_HERE_IN(INIT), "Linux connect function fails for MSM/EMP socket!");
    }
}

} // namespace

void empInit() {
    empDebugLine("empInit(): Event Manager starts initializing.\n");
    resetControlBlock();
    takeIdentity();
    empEvMsgPoolInit();
    empAelFileNameList = nullptr;
    connectToMsm();
    empDebugLine("empInit(): Event Manager connect to MSM with socket [%d]\n",
                 empControl.socketFdMSM);
}
