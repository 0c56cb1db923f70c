/**
 * @file
 * How a process of the blade logs events, in C and C++.
 *
 * A process opens an event log as one endpoint of the message switch and logs events. The event
 * manager does not answer events, so the library keeps a copy of each until a later answer has
 * shown that it was taken (MPU_confirmEvents(), and by itself whenever 32,768 bytes of copies are
 * kept). When the event manager cannot be reached or does not answer in time, the copies and all
 * further events are left as alternate event log files, which it takes into its log at its next
 * start; once a second the library looks whether it is back. An event manager that died and came
 * back before the answer took along what it had not stored: when any process has attached the
 * parameter block meanwhile, or has left it, the library looks for its events in the log and sends
 * again what it does not find. So every event reaches the log at least once, as long as the process
 * lives until it is confirmed; an event whose confirmation was too slow reaches it twice.
 *
 * No call waits for the event manager longer than the time that was given at the opening; writing
 * files takes what the file system takes. One thread at a time may use an event log, one thread of
 * a process at a time may use any. In a child after fork() an event log begins anew, on a link of
 * its own, when the child first logs or confirms with it: what the parent had not confirmed stays
 * the parent's. A child that closes it has only let go of it.
 *
 * Signal handlers: only MPU_leaveEvent() may be called by one, and only while no thread is in any
 * of these functions or in altEventLogM(). All other functions are not async-signal-safe.
 */
#ifndef MPU_EVENT_H
#define MPU_EVENT_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Severity of an event. */
enum MPU_EVENT_TYPE_e {
    MPU_E_EVENT_INFORMATION = 1,
    MPU_E_EVENT_WARNING = 2,
    MPU_E_EVENT_ERROR = 3
};

/** What an event is about. */
enum MPU_EVENT_CATEGORY_e {
    MPU_E_EVENT_SYSTEM = 1,
    MPU_E_EVENT_MANAGEMENT = 2,
    MPU_E_EVENT_ENVIRONMENTAL = 3,
    MPU_E_EVENT_DISK = 4,
    MPU_E_EVENT_VOLUME = 5,
    MPU_E_EVENT_SATA = 6,
    MPU_E_EVENT_SCSI = 7,
    MPU_E_EVENT_ISCSI = 8,
    MPU_E_EVENT_NETWORK = 9,
    MPU_E_EVENT_HARDWARE = 10,
    MPU_E_EVENT_IO = 11,
    MPU_E_EVENT_CACHE = 12,
    MPU_E_EVENT_ISNSC = 13
};

/** Where an event is when a function returns. */
enum MPU_EVENT_STATUS_e {
    MPU_E_EVENT_FAILED = -1, /**< nowhere; errno says why */
    MPU_E_EVENT_SENT = 0,   /**< on its way (log), or in the event manager's log (confirm, close) */
    MPU_E_EVENT_IN_FILE = 1 /**< in an alternate event log file, until the next start */
};

/** Largest data of an event, in bytes. */
#define MPU_EVENT_DATA_MAX 3848

/** Number of endpoints: 0 to 33. */
#define MPU_EVENT_ENDPOINTS 34

/** An event as its process knows it. Numbers are the host's; the event manager adds identity,
 * sequence id and time. */
struct MPU_Event_s {
    uint8_t type;      /**< MPU_EVENT_TYPE_e, stored as given */
    uint8_t category;  /**< MPU_EVENT_CATEGORY_e, stored as given */
    uint8_t idVersion; /**< version of the data's layout */
    uint16_t id;       /**< event id within the process's endpoint */
    const void* data;  /**< the event's own data, in the byte order that its readers expect; may be
                          NULL  when length is 0 */
    size_t length;     /**< bytes of data, 0 to MPU_EVENT_DATA_MAX */
};
typedef struct MPU_Event_s MPU_Event_t;

/** An open event log; owned by the caller of MPU_openEventLog() until MPU_closeEventLog(). */
typedef struct MPU_EventLog_s MPU_EventLog_t;

/**
 * Opens an event log. The event manager need not be there.
 * @param key      System V key of the blade's parameter block, which says where switch and files
 * are
 * @param endpoint the process, MMSG_EPID_e, 0 to 33 but not 27: the source of its events
 * @param waitMs   longest time that a call may wait for the event manager, in milliseconds, 1 to
 * 60,000
 * @return NULL with errno: EINVAL (endpoint or time out of range), ENOENT (no parameter block under
 * the key; lines on standard error say why), ENOMEM, ENAMETOOLONG (the switch's directory is too
 * long)
 */
MPU_EventLog_t* MPU_openEventLog(int key, uint8_t endpoint, int waitMs);

/**
 * Logs an event. Waits only while the switch is slow or copies fill their space.
 * @return MPU_E_EVENT_SENT or MPU_E_EVENT_IN_FILE; MPU_E_EVENT_FAILED with errno EINVAL (no event,
 * or too much data: nothing is done) or EIO (neither sent nor left in a file; lines on standard
 * error say why). A file holds one byte at least: an event without data is left there with one zero
 * byte.
 */
int MPU_logEvent(MPU_EventLog_t* log, const MPU_Event_t* event);

/**
 * Leaves an event as an alternate event log file without asking for the event manager: for the last
 * act of a process. May be called by a signal handler, see above: it uses neither stdio nor the
 * heap, also when it fails, and at most 12 KB of stack.
 * @return MPU_E_EVENT_IN_FILE, with errno as it was; MPU_E_EVENT_FAILED with errno as for
 * MPU_logEvent()
 */
int MPU_leaveEvent(const MPU_EventLog_t* log, const MPU_Event_t* event);

/**
 * Waits until the event manager has taken all events whose logging said MPU_E_EVENT_SENT since the
 * last confirmation.
 * @return MPU_E_EVENT_SENT; MPU_E_EVENT_IN_FILE when it did not answer in time, then or earlier,
 * and what it may not have was left in files; MPU_E_EVENT_FAILED with errno EIO when one could not
 * even be left there, EINVAL without an event log
 */
int MPU_confirmEvents(MPU_EventLog_t* log);

/**
 * Confirms, closes and frees. NULL is nothing to close.
 * @return as MPU_confirmEvents(); the event log is gone whatever it is
 */
int MPU_closeEventLog(MPU_EventLog_t* log);

/** Name of an endpoint's socket in the switch's directory, "environ" for 26; NULL from 34 on. */
const char* MPU_endpointName(uint8_t endpoint);

#ifdef __cplusplus
} // extern "C"

namespace mpu {

/** An open event log that closes itself. @see MPU_openEventLog() */
class EventLog {
  public:
    EventLog(int key, uint8_t endpoint, int waitMs = 2000)
        : log_(MPU_openEventLog(key, endpoint, waitMs)) {}
    ~EventLog() { MPU_closeEventLog(log_); }
    EventLog(EventLog&& other) noexcept : log_(other.log_) { other.log_ = nullptr; }
    EventLog& operator=(EventLog&& other) noexcept {
        MPU_EventLog_t* taken = other.log_;
        other.log_ = log_;
        log_ = taken;
        return *this;
    }
    EventLog(const EventLog&) = delete;
    EventLog& operator=(const EventLog&) = delete;

    /** @return whether it could be opened; errno said why not. The other functions need it to be.
     */
    explicit operator bool() const { return log_ != nullptr; }

    int log(const MPU_Event_t& event) { return MPU_logEvent(log_, &event); }
    int leave(const MPU_Event_t& event) const { return MPU_leaveEvent(log_, &event); }
    int confirm() { return MPU_confirmEvents(log_); }

    /** Closes now, for those who want the result. */
    int close() {
        MPU_EventLog_t* closed = log_;
        log_ = nullptr;
        return MPU_closeEventLog(closed);
    }

  private:
    MPU_EventLog_t* log_;
};

} // namespace mpu
#endif

#endif
