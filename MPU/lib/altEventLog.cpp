#include "altEventLog.h"

#include "alt_event_file.h"

#include <cstdlib>
#include <cstring>
#include <unistd.h>

using namespace mpu;

namespace {

[[noreturn]] void abortCaller() {
    fflush(stdout); // abort() does not
    abort();
}

/** Ends the caller for an event that no file may hold. */
void checkEvent(const EmpEvLogHeader_t& event) {
    if (event.evSource > MMSG_E_MPU_EPID_END) {
        printf("altEventLogM(): Un-recognized Requestor [%d] calling Bug-Check function!!!\n",
               event.evSource);
        abortCaller();
    }
    if (event.evStructLength == 0 || event.evStructLength > EMP_MAX_STRUCT) {
        // KEEP: the number is the source, not the length.
        printf(
            "altEventLogM(): Invalid Event Structure = [%d] length by calling Bug-Check function!!!\n",
            event.evSource);
        abortCaller();
    }
}

void printLine(int fd, const char* text, const char* more) {
    fprintf(fd == STDOUT_FILENO ? stdout : stderr, "%s%s\n", text, more);
}

const char* meaning(int error) {
    return strerror(error);
}

constexpr MpuAelSay_t PRINTED = {printLine, meaning};

} // namespace

int openAELFileFd(const MPU_PARAMS_t* mpuParamsPtr) {
    return mpuAelOpen(mpuParamsPtr, PRINTED);
}

S32_t altEventLogM(const EmpEvLogMsg_t* evLogMsgPtr, const MPU_PARAMS_t* mpuParamsPtr) {
    if (mpuParamsPtr == nullptr) {
        // KEEP: this counts as done; the caller has nothing better to do.
        printf(
            "altEventLogM(): AEL File not created for Requestor [%d] b/s MPU Parameters memory not initialized\n",
            evLogMsgPtr->evLogHdr.evSource);
        return ALT_EVENT_LOG_E_OK;
    }
    checkEvent(evLogMsgPtr->evLogHdr);
    return mpuAelWrite(evLogMsgPtr, mpuParamsPtr, PRINTED);
}

void altEventLog(const EmpEvLogMsg_t* evLogMsgPtr, const MPU_PARAMS_t* mpuParamsPtr, int exitVal) {
    altEventLogM(evLogMsgPtr, mpuParamsPtr);
    printf("altEventLog(): Exit with value = [%d]\n", exitVal);
    exit(exitVal);
}
