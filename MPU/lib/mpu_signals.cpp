#include "mpu_signals.h"

#include "altEventLog.h"
#include "mmsg.h"
#include "mpu_params.h"
#include "startup.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <ucontext.h>
#include <unistd.h>

using namespace mpu;

namespace {

pid_t myPid;
char myName[sizeof(SignalEvent_t::name)];
U8_t bigEvent[MMSG_MAX_LENGTH];

const struct {
    int number;
    const char* failure;
} caughtSignals[] = {
    {SIGILL, "     - Unable to set sigaction for illegal instruction event.\n"},
    {SIGFPE, "     - Unable to set sigaction for floating point exception event.\n"},
    {SIGSEGV, "     - Unable to set sigaction for segmentation violation event.\n"},
    {SIGBUS, "     - Unable to set sigaction for bus error event.\n"},
    {SIGHUP, "     - Unable to set sigaction for hangup event.\n"},
    {SIGTERM, "     - Unable to set sigaction for termination event.\n"},
    {SIGQUIT, "     - Unable to set sigaction for quit event from keyboard.\n"},
};

/** Takes the first argument of this process as its name; without /proc the name stays empty. */
void readMyName() {
    char path[32];
    char arguments[50] = {}; // a short read brings no NUL
    memset(myName, 0, sizeof(myName));
    snprintf(path, sizeof(path), "/proc/%d/cmdline", static_cast<int>(myPid));
    int fd = open(path, O_RDONLY);
    if (fd < 0) {
        return;
    }
    if (read(fd, arguments, sizeof(arguments)) > 0) {
        memcpy(myName, arguments, strnlen(arguments, sizeof(myName) - 1));
    }
    close(fd);
}

/** The register set that a machine context points to, as far as the event has room for it. */
void copyRegisters(SignalEvent_t& event, const void* context) {
    const auto* interrupted = static_cast<const ucontext_t*>(context);
#if defined(__powerpc__) && !defined(__powerpc64__)
    if (interrupted->uc_mcontext.regs != nullptr) {
        memcpy(event.regs, interrupted->uc_mcontext.regs, sizeof(event.regs));
    }
#elif defined(__x86_64__)
    static_assert(sizeof(interrupted->uc_mcontext.gregs) >= sizeof(event.regs));
    memcpy(event.regs, interrupted->uc_mcontext.gregs, sizeof(event.regs));
#else
    static_cast<void>(event);
    static_cast<void>(interrupted);
#endif
}

void fillBody(SignalEvent_t& event, const siginfo_t* info, const void* context) {
    static_assert(sizeof(*info) == sizeof(event.info) && sizeof(myPid) == sizeof(event.pid));
    memset(&event, 0, sizeof(event));
    memcpy(event.pid, &myPid, sizeof(event.pid));
    memcpy(event.name, myName, sizeof(event.name) - 1);
    if (info != nullptr) {
        memcpy(event.info, info, sizeof(event.info));
    }
    if (context != nullptr) {
        copyRegisters(event, context);
    }
}

void fillHeader(EmpEvLogHeader_t& header) {
    header.evStructLength = sizeof(SignalEvent_t);
    header.evSource = MMSG_E_EPID_STARTUPMP;
    header.evType = EMP_E_TYPE_ERROR;
    header.evCategory = EMP_E_CATEGORY_SYSTEM;
    header.evIdVersion = 1;
    header.evId = SUS_E_EM_MSG_SIGNAL;
}

} // namespace

int handleUnexpectedSignals() {
    int result = 0;
    myPid = getpid();
    readMyName();
    for (const auto& caught : caughtSignals) {
        struct sigaction action = {};
        action.sa_sigaction = catchEvent;
        action.sa_flags = SA_SIGINFO;
        sigemptyset(&action.sa_mask);
        result = sigaction(caught.number, &action, nullptr);
        if (result != 0) {
            int error = errno;
            fputs(caught.failure, stderr);
            result = fprintf(stderr, "       %s\n", strerror(error));
        }
    }
    return result;
}

namespace mpu {

void catchEvent(int /*sig*/, siginfo_t* info, void* context) {
    auto* event = reinterpret_cast<EmpEvLogMsg_t*>(bigEvent);
    fillBody(*reinterpret_cast<SignalEvent_t*>(bigEvent + EMP_EVENT_HEADER_SIZE), info, context);
    fillHeader(event->evLogHdr);
    S32_t status = altEventLogM(event, pMpuParams);
    // Only a failure has printed anything, and only then may stdio be touched here.
    if (pMpuParams == nullptr || status != ALT_EVENT_LOG_E_OK) {
        fflush(stdout);
    }
    abort();
}

} // namespace mpu
