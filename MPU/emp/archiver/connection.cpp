#include "archiver/connection.h"

#include "archiver/link_state.h"
#include "diag/debug_line.h"
#include "loop/wait.h"
#include "state/control.h"
#include "state/held.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

bool empEventArchiverConfigured() {
    return empControl.socketAddressEventArchiver.sin_addr.s_addr != 0 &&
           empControl.socketAddressEventArchiver.sin_port != 0;
}

void empOpenEventArchiverSocket(EmpSite_t site) {
    empSettleRecords();
    int descriptor = socket(AF_INET, SOCK_STREAM, 0);
    empControl.socketFdEventArchiver = descriptor;
    // A descriptor that no select set can hold is of no use.
    if (descriptor == -1 || descriptor >= FD_SETSIZE) {
        EMP_BUGCHECK(site, "Linux socket function fails for EMP socket!");
    }
    fcntl(descriptor, F_SETFL, fcntl(descriptor, F_GETFL) | O_NONBLOCK);
}

EmpConnectResult_t empConnectEventArchiverSocket() {
    int result =
        connect(empControl.socketFdEventArchiver,
                reinterpret_cast<const struct sockaddr*>(&empControl.socketAddressEventArchiver),
                sizeof(empControl.socketAddressEventArchiver));
    int error = errno;
    return {result != -1, error == EINPROGRESS};
}

void empMarkEventArchiverConnected() {
    empControl.evManagerStatusFlag |= EMP_STATUS_FLAG_ARCHIVER;
    empMoveLinkState(EMP_E_LINK_CONNECT_ISSUED);
}

S32_t empCloseEventArchiverConnection() {
    empDebugLine("empCloseEventArchiverConnection(): Close the Event Archiver connection.\n");
    empForgetArchiverDescriptor();
    S32_t result = EMP_E_GENERR;
    // Descriptor 0 stands for no socket.
    if (empControl.socketFdEventArchiver != 0) {
        result = close(empControl.socketFdEventArchiver);
    }
    empControl.socketFdEventArchiver = 0;
    empControl.evManagerStatusFlag =
        static_cast<U16_t>(empControl.evManagerStatusFlag & ~EMP_STATUS_FLAG_ARCHIVER);
    empMoveLinkState(EMP_E_LINK_CLOSED);
    // KEEP: a deliberate switch of archiver counts as a failure too.
    empControl.evArchiverConnectionFailed++;
    return result;
}
