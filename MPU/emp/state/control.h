/**
 * @file
 * The state of the event manager: the control block, the index of the log file, and the work spaces
 * that every module shares. One thread reads and writes them, without locks.
 */
#ifndef EMP_STATE_CONTROL_H
#define EMP_STATE_CONTROL_H

#include "big_endian.h"
#include "configuration.h"
#include "fixed_width.h"
#include "mpu_gbl.h"

#include <netinet/in.h>
#include <sys/time.h>
#include <sys/un.h>

/** Results of functions that can fail softly. */
enum EMP_CODE_e : S32_t {
    EMP_E_OK = 0,
    EMP_E_GENERR = -1,
};

/** Whether the log file has been written round its end. */
enum EMP_WRAP_OVER_e : U8_t {
    EMP_E_WRAP_OVER_FALSE = 1,
    EMP_E_WRAP_OVER_TRUE = 2,
};

/** State of the socket to the Event Archiver. */
enum EMP_ARCHIVER_SOCKET_STATE_e : U16_t {
    EMP_E_ARCHIVER_SOCKET_ST_CONNECTED = 1,       ///< connect issued, perhaps still in progress
    EMP_E_ARCHIVER_SOCKET_ST_GET_STATUS_SENT = 2, ///< status request sent, answer awaited
    EMP_E_ARCHIVER_SOCKET_ST_OPEN = 3,            ///< forwarding
    EMP_E_ARCHIVER_SOCKET_ST_FULL = 4,            ///< the last event went out in part only
    EMP_E_ARCHIVER_SOCKET_ST_CLOSE = 5,           ///< no connection
};

/** Bit of evManagerStatusFlag: a connection to the Event Archiver is wanted and in use. */
constexpr U16_t EMP_STATUS_FLAG_ARCHIVER = 1;

/**
 * The receive buffer and the entry work space hold one message or record of at most 4064 bytes;
 * every limit, clear and dump uses that number. Physically they take the longest thing that a
 * 16-bit length can announce (216 + 65,535 bytes), so that it can be read whole before it is
 * refused.
 */
constexpr U32_t EMP_WORK_SPACE_SIZE = MMSG_MAX_LENGTH;
constexpr U32_t EMP_WORK_SPACE_PHYSICAL = 65'792;
static_assert(EMP_WORK_SPACE_PHYSICAL >= EMP_EVENT_MMSG_SIZE + 65'535U);

/** All state of the event manager; host byte order. Counters are per process life. */
struct EmpControl_s {
    struct timeval selectTimeout;        ///< for every select: 1 s, or 100 us while catching up
    S32_t socketFdMSM;                   ///< stream socket to the message switch
    struct sockaddr_un socketAddressMSM; ///< mmsgDirectory + "/eventlog"
    S32_t socketFdEventArchiver;         ///< TCP socket to the archiver; 0: none
    struct sockaddr_in socketAddressEventArchiver; ///< configured when address and port are not 0
    int socketFdEventArchiverSet; ///< 1 while that socket is in the master select sets
    S32_t eventLogFileFd;         ///< the open log file
    U16_t evManagerStatusFlag;    ///< EMP_STATUS_FLAG_ARCHIVER
    U16_t evArchiverSocketState;  ///< EMP_ARCHIVER_SOCKET_STATE_e
    U32_t empWrite;               ///< offset where the next record is written
    U32_t empStart; ///< offset of the oldest record; the file size when nothing below needs
                    ///< protecting
    U32_t empStartSequenceId;              ///< id of the oldest record
    U32_t empSequenceId;                   ///< id that the next event receives
    U32_t empEventArchiverSequenceId;      ///< forwarding cursor: id last handed to the archiver
    U32_t empEventArchiverHandle;          ///< handle of the next status request; starts at 1000
    U8_t empEnclosureId[EMP_ID_TEXT_SIZE]; ///< text: chassisSN of the parameter block
    U8_t empBladeId[EMP_ID_TEXT_SIZE];     ///< text: serialStr of the parameter block
    U32_t empSlotId;                       ///< slotId of the parameter block
    U32_t empInstanceNumber;               ///< instance of the log, found in the log file
    // Local messages received
    U32_t mmsgEventLogMsgReceive;
    U32_t mmsgEventInquiryMsgReceive;
    U32_t mmsgEventInquiryMsgInvalid; ///< inquiries of an unknown type
    U32_t mmsgEventSetEventArchiverReceive;
    U32_t mmsgEventGetEventArchiverReceive;
    U32_t mmsgEventGetEventManagerStatusReceive;
    U32_t mmsgEventGetEventArchiverStatusReceive;
    U32_t mmsgEventAlternateEventLogMsgReceive;
    U32_t mmsgEventUnknownMsgReceive;
    // Local messages sent, counted before the send
    U32_t mmsgEventLogMsgSend;
    U32_t mmsgEventResponseMsgSendSuccess;
    U32_t mmsgEventResponseMsgSendFail;
    U32_t mmsgEventResponseMsgSendResourceNotAvailable;
    // Archiver messages received
    U32_t EAmsgEventLogMsgReceive;
    U32_t EAmsgEventInquiryMsgReceive;
    U32_t EAmsgEventInquiryMsgInvalid; ///< stays 0: nothing of this kind happens
    U32_t EAmsgEventSetEventArchiverReceive;
    U32_t EAmsgEventGetEventArchiverReceive;
    U32_t EAmsgEventGetEventManagerStatusReceive;
    U32_t EAmsgEventGetEventArchiverStatusReceive;
    U32_t EAmsgEventUnknownMsgReceive;
    // Archiver messages sent
    U32_t EAmsgEventLogMsgSend;             ///< events written whole
    U32_t EAmsgEventResponseMsgSendSuccess; ///< stays 0
    U32_t EAmsgEventResponseMsgSendFail;    ///< stays 0
    U32_t empEventInLogFile;                ///< records in the log file
    U32_t empEventAddToLogFile;             ///< records added since the start or the last rebuild
    U32_t empEventDelFromLogFile;           ///< records overwritten or cleared since the start
    U32_t evManagerInquiryMsgTimeout;       ///< relayed inquiries that timed out
    U32_t evArchiverConnectionFailed;       ///< archiver connections closed
    U32_t evArchiverConnectionAttempt;      ///< archiver connections tried
    struct timeval reconnectTimeout;        ///< time to the next connection attempt
    struct timeval forwardTimeout;          ///< time to the next drain of the forward list
    U8_t empWrapOver;                       ///< EMP_WRAP_OVER_e
    U8_t forwardPendingListCount;           ///< falls only when a record moves to the response list
    U8_t responsePendingListCount;          ///< never falls
    U8_t empDebug;                          ///< 1: debug lines are printed
    U8_t foundGap;                          ///< 1 once the scan at start-up has met a gap
    U8_t empInMsg[EMP_WORK_SPACE_PHYSICAL]; ///< the one receive buffer; its first 4064 bytes count
};
using EmpControl_t = EmpControl_s;

extern EmpControl_t empControl;

/** Whether an index entry leads to a record. */
enum EMP_ENTRY_e : U8_t {
    EMP_E_ENTRY_INVALID = 0,
    EMP_E_ENTRY_VALID = 1,
};

/** Index entry, one 32-bit big-endian word: the flag in the top byte, the offset in the lower
 * three. */
struct EmpEvDatabase_s {
    U8_t evFlag;      // 0  EMP_ENTRY_e
    U24be_t evOffset; // 1  offset of the record in the log file
};
using EmpEvDatabase_t = EmpEvDatabase_s;
static_assert(sizeof(EmpEvDatabase_t) == 4 && isWireImage<EmpEvDatabase_t>);

/**
 * The index: slot = sequence id modulo 10,000. One spare entry follows the table, always invalid: a
 * backward search examines it when it passes slot 0.
 */
extern EmpEvDatabase_t eventEntryDatabase[EMP_INDEX_ENTRIES + 1];

/** Work space for records read and built, replies, and a source of zeros. Its first 4064 bytes
 * count. */
extern U8_t eventEntryWorkSpace[EMP_WORK_SPACE_PHYSICAL];

/**
 * The position in the log file. It is kept here, since the file is read and written by positional
 * calls: each step moves it as a seek, a read or a write of the file would. A bug-check shows the
 * file around it.
 */
extern S64_t empLogFilePosition;

/** An empty enclosure id. */
extern U8_t nullEmpEnclosureId[EMP_ID_TEXT_SIZE];

extern const char* ProgName;           ///< program name, without directories
extern int shmKey;                     ///< key of the shared parameter block
extern const MPU_PARAMS_t* oMpuParams; ///< the attached parameter block, read only

/** Index slot of a sequence id. */
constexpr U32_t empIndexSlot(U32_t sequenceId) {
    return sequenceId % EMP_INDEX_ENTRIES;
}

/** Whether the archiver link is wanted and in use. */
inline bool empArchiverFlagSet() {
    return (empControl.evManagerStatusFlag & EMP_STATUS_FLAG_ARCHIVER) != 0;
}

#endif
