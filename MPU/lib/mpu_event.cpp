#include "mpu/event.h"

#include "alt_event_file.h"
#include "mpu_event_search.h"
#include "mpu_params.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

using namespace mpu;

namespace {

constexpr size_t KEPT_SIZE = 32'768;            ///< of unconfirmed messages
constexpr MpuMilliseconds_t RETRY_MS = 1000;    ///< between two looks for an absent event manager
constexpr MpuMilliseconds_t RETRY_WAIT_MS = 50; ///< that such a look waits for an answer

static_assert(KEPT_SIZE / EMP_EVENT_MMSG_SIZE <= MPU_SEARCH_MESSAGES_MAX);
static_assert(MPU_EVENT_DATA_MAX == EMP_MAX_STRUCT);
static_assert(static_cast<int>(MPU_E_EVENT_ERROR) == EMP_E_TYPE_ERROR);
static_assert(static_cast<int>(MPU_E_EVENT_ISNSC) == EMP_E_CATEGORY_ISNSC);

} // namespace

struct MPU_EventLog_s {
    MpuEventLink_t link;
    MPU_PARAMS_t* params;
    int shmid; ///< of params
    int waitMs;
    pid_t owner; ///< who uses it
    U8_t endpoint;
    bool away;                  ///< events go to files; nothing is kept
    MpuMilliseconds_t nextLook; ///< while away: when to look again
    U32_t handle;               ///< of the newest status request
    int worst;         ///< MPU_EVENT_STATUS_e of events that were kept, since the last confirmation
    MpuBlockUse_t use; ///< of the parameter block before the oldest kept message was sent
    S64_t confirmedAt; ///< second in which nothing was kept any more
    size_t keptLength;
    U8_t kept[KEPT_SIZE]; ///< messages that were sent and are not confirmed
};

namespace {

/** Builds the message of an event. @param to EMP_EVENT_MMSG_SIZE + event.length bytes */
MMSG_t* buildEvent(void* to, U8_t endpoint, const MPU_Event_t& event) {
    MMSG_t* message =
        mpuBuildRequest(to, endpoint, EMP_E_MSGS_LOG, EMP_EVENT_MMSG_SIZE + event.length);
    auto* header = reinterpret_cast<EmpEvLogHeader_t*>(message->user_data_start);
    *header = {};
    header->evType = event.type;
    header->evCategory = event.category;
    header->evIdVersion = event.idVersion;
    header->evId = event.id;
    if (event.length > 0) {
        memcpy(static_cast<U8_t*>(to) + EMP_EVENT_MMSG_SIZE, event.data, event.length);
    }
    return message;
}

int withError(int status) {
    if (status == MPU_E_EVENT_FAILED) {
        errno = EIO;
    }
    return status;
}

void leaveKept(MPU_EventLog_t* log) {
    for (size_t at = 0; at < log->keptLength;) {
        const auto* message = reinterpret_cast<const MMSG_t*>(log->kept + at);
        if (!mpuAelLeave(message, log->params)) {
            log->worst = MPU_E_EVENT_FAILED;
        } else if (log->worst == MPU_E_EVENT_SENT) {
            log->worst = MPU_E_EVENT_IN_FILE;
        }
        at += message->mmch.mmsg_length;
    }
    log->keptLength = 0;
}

/** From now on events go to files, the unconfirmed ones first. */
void goAway(MPU_EventLog_t* log, MpuMilliseconds_t nextLook) {
    leaveKept(log);
    log->away = true;
    log->nextLook = nextLook;
}

void loseLink(MPU_EventLog_t* log) {
    mpuLinkClose(&log->link);
    goAway(log, mpuNow());
}

/** Asks for the event manager's status and waits for the answer. The event manager handles messages
 * in their order, so an answer says that it has taken everything sent before. */
MPU_LINK_e ask(MPU_EventLog_t* log, MpuMilliseconds_t deadline) {
    MMSG_t request[1];
    mpuBuildRequest(request, log->endpoint, EMP_E_MSGS_GET_EVENT_MANAGER_STATUS, MMCH_SIZE);
    request->mmch.handle = ++log->handle;
    if (!mpuLinkSend(&log->link, request, deadline)) {
        return MPU_LINK_E_LOST;
    }
    return mpuLinkAwait(&log->link, EMP_E_MSGS_GET_EVENT_MANAGER_STATUS, log->handle, deadline);
}

void lookForReturn(MPU_EventLog_t* log) {
    if (mpuNow() < log->nextLook) {
        return;
    }
    log->nextLook = mpuNow() + RETRY_MS;
    if (log->link.fd < 0 && !mpuLinkOpen(&log->link)) {
        return;
    }
    MpuMilliseconds_t wait = log->waitMs < RETRY_WAIT_MS ? log->waitMs : RETRY_WAIT_MS;
    MPU_LINK_e answer = ask(log, mpuNow() + wait);
    log->away = answer != MPU_LINK_E_ANSWER;
    if (answer == MPU_LINK_E_LOST) {
        mpuLinkClose(&log->link);
    }
}

// Answers go to every process of an endpoint.
U32_t firstHandle() {
    return (static_cast<U32_t>(getpid()) << 16) ^ static_cast<U32_t>(mpuNow());
}

/** A child after fork() begins anew. What its parent keeps is for the parent to confirm, and so is
 * what comes on the parent's link. */
void leaveParent(MPU_EventLog_t* log) {
    const pid_t process = getpid();
    if (log->owner == process) {
        return;
    }
    log->owner = process;
    log->handle = firstHandle();
    log->keptLength = 0;
    log->worst = MPU_E_EVENT_SENT;
    mpuLinkClose(&log->link);
    log->away = !mpuLinkOpen(&log->link);
}

/** Reads what has come in since the last call, and looks for an absent event manager. */
void refresh(MPU_EventLog_t* log) {
    if (log->link.fd >= 0) {
        switch (mpuLinkAwait(&log->link, EMP_E_MSGS_GET_EVENT_MANAGER_STATUS, log->handle, 0)) {
        case MPU_LINK_E_LOST:
            loseLink(log);
            break;
        case MPU_LINK_E_ANSWER:
            log->away = false;
            break;
        case MPU_LINK_E_NOTHING:
            break;
        }
    }
    if (log->away) {
        lookForReturn(log);
    }
}

/** Sends once more what is kept. @return whether it went out */
bool sendKept(MPU_EventLog_t* log, MpuMilliseconds_t deadline) {
    log->use = mpuBlockUse(log->shmid);
    for (size_t at = 0; at < log->keptLength;) {
        const auto* message = reinterpret_cast<const MMSG_t*>(log->kept + at);
        if (!mpuLinkSend(&log->link, message, deadline)) {
            return false;
        }
        at += message->mmch.mmsg_length;
    }
    return true;
}

/** The event manager has answered. If it may be another one than the one that took what is kept,
 * that is looked for in its log. @return whether nothing is missing */
bool isTaken(MPU_EventLog_t* log, MpuMilliseconds_t deadline) {
    if (!mpuSameUse(log->use, mpuBlockUse(log->shmid))) {
        MpuSearch_t search = {&log->link,   log->params,      log->endpoint,
                              &log->handle, log->confirmedAt, deadline};
        log->keptLength = mpuDropFound(search, log->kept, log->keptLength);
    } else {
        log->keptLength = 0;
    }
    S32_t microseconds;
    if (log->keptLength == 0) {
        mpuGetTime64(&log->confirmedAt, &microseconds);
    }
    return log->keptLength == 0;
}

/** Makes sure that the event manager has what is kept, or leaves it in files. */
void settle(MPU_EventLog_t* log) {
    MpuMilliseconds_t deadline = mpuNow() + log->waitMs;
    for (bool again = true;; again = false) {
        switch (ask(log, deadline)) {
        case MPU_LINK_E_ANSWER:
            if (isTaken(log, deadline)) {
                return;
            }
            if (!again) {
                leaveKept(log);
                return;
            }
            if (!sendKept(log, deadline)) {
                loseLink(log);
                return;
            }
            break;
        case MPU_LINK_E_NOTHING:
            goAway(log, mpuNow() + RETRY_MS);
            return;
        case MPU_LINK_E_LOST:
            loseLink(log);
            return;
        }
    }
}

/** Sends an event and keeps it. @return false when it has to be left in a file */
bool sendAndKeep(MPU_EventLog_t* log, const MPU_Event_t& event) {
    if (log->keptLength + EMP_EVENT_MMSG_SIZE + event.length > KEPT_SIZE) {
        settle(log);
    }
    if (log->away) {
        return false;
    }
    if (log->keptLength == 0) {
        log->use = mpuBlockUse(log->shmid);
    }
    MMSG_t* message = buildEvent(log->kept + log->keptLength, log->endpoint, event);
    if (!mpuLinkSend(&log->link, message, mpuNow() + log->waitMs)) {
        loseLink(log);
        return false;
    }
    log->keptLength += message->mmch.mmsg_length;
    return true;
}

bool isValid(const MPU_EventLog_t* log, const MPU_Event_t* event) {
    bool valid = log != nullptr && event != nullptr && event->length <= EMP_MAX_STRUCT &&
                 (event->data != nullptr || event->length == 0);
    if (!valid) {
        errno = EINVAL;
    }
    return valid;
}

/** The endpoint's socket. @return false, with errno, for a directory that is too long */
bool makeAddress(struct sockaddr_un* address, const MPU_PARAMS_t* params, U8_t endpoint) {
    address->sun_family = AF_UNIX;
    int length = snprintf(address->sun_path, sizeof(address->sun_path), "%.128s/%s",
                          params->mmsgDirectory, MPU_endpointName(endpoint));
    errno = ENAMETOOLONG;
    return length < static_cast<int>(sizeof(address->sun_path));
}

/** Attaches to the block and leaves the process's own attachment as it is. */
MPU_PARAMS_t* attach(int key, int* shmid) {
    MPU_PARAMS_t* own = pMpuParams;
    MPU_PARAMS_t* params = MPU_getMpuParamsAndShmid(shmid, key);
    if (own != nullptr) {
        pMpuParams = own;
    }
    errno = ENOENT;
    return params;
}

void release(MPU_EventLog_t* log) {
    mpuLinkClose(&log->link);
    if (log->params != nullptr && log->params != pMpuParams) {
        shmdt(log->params);
    }
    int error = errno;
    free(log);
    errno = error;
}

} // namespace

MPU_EventLog_t* MPU_openEventLog(int key, uint8_t endpoint, int waitMs) {
    // The event manager's place at the switch is its own.
    if (endpoint >= MPU_EVENT_ENDPOINTS || endpoint == MMSG_E_EPID_EVENTLOGMP || waitMs < 1 ||
        waitMs > 60'000) {
        errno = EINVAL;
        return nullptr;
    }
    auto* log = static_cast<MPU_EventLog_t*>(calloc(1, sizeof(MPU_EventLog_t)));
    if (log == nullptr) {
        return nullptr;
    }
    log->link.fd = -1;
    log->endpoint = endpoint;
    log->waitMs = waitMs;
    log->owner = getpid();
    log->handle = firstHandle();
    log->params = attach(key, &log->shmid);
    if (log->params == nullptr || !makeAddress(&log->link.address, log->params, endpoint)) {
        release(log);
        return nullptr;
    }
    log->away = !mpuLinkOpen(&log->link);
    return log;
}

int MPU_logEvent(MPU_EventLog_t* log, const MPU_Event_t* event) {
    if (!isValid(log, event)) {
        return MPU_E_EVENT_FAILED;
    }
    leaveParent(log);
    refresh(log);
    if (!log->away && sendAndKeep(log, *event)) {
        return MPU_E_EVENT_SENT;
    }
    return MPU_leaveEvent(log, event);
}

int MPU_leaveEvent(const MPU_EventLog_t* log, const MPU_Event_t* event) {
    if (!isValid(log, event)) {
        return MPU_E_EVENT_FAILED;
    }
    int error = errno;
    U8_t message[MMSG_MAX_LENGTH];
    if (!mpuAelLeave(buildEvent(message, log->endpoint, *event), log->params)) {
        return withError(MPU_E_EVENT_FAILED);
    }
    errno = error; // as the interrupted code knows it
    return MPU_E_EVENT_IN_FILE;
}

int MPU_confirmEvents(MPU_EventLog_t* log) {
    if (log == nullptr) {
        errno = EINVAL;
        return MPU_E_EVENT_FAILED;
    }
    leaveParent(log);
    if (log->keptLength > 0) {
        settle(log);
    }
    int status = log->worst;
    log->worst = MPU_E_EVENT_SENT;
    return withError(status);
}

int MPU_closeEventLog(MPU_EventLog_t* log) {
    if (log == nullptr) {
        return MPU_E_EVENT_SENT;
    }
    int status = MPU_confirmEvents(log);
    release(log);
    return status;
}
