/**
 * @file
 * The event manager's own events: their ids (source 27) and the data that they carry.
 */
#ifndef EMP_EVL_H
#define EMP_EVL_H

#include "big_endian.h"
#include "configuration.h"

#include <cstddef>

/** Event ids of source 27, MMSG_E_EPID_EVENTLOGMP. */
enum EMP_EV_ID : U16_t {
    EMP_E_ID_EVENTMGRMP_DUMMY = 1, ///< covers unused space of the log file
    EMP_E_ID_EVENTMGRMP_FIRST = 2, ///< first entry of a fresh log: EmpEventData_t
    EMP_E_ID_EVENTMGRMP_TEST = 3,  ///< test event: EmpTestEvStruct_t
    EMP_E_ID_EVENTMGRMP_CORRUPTED_EVENT_LOG_FILE = 4, ///< the log was damaged and rebuilt; no data
    EMP_E_ID_EVENTMGRMP_BUGCHECK_ERROR_MSG = 11,      ///< bug-check: EmpErrorMsg_t
    EMP_E_ID_EVENTMGRMP_BUGCHECK_INFO = 12,           ///< bug-check: EmpInfo_t
    EMP_E_ID_EVENTMGRMP_BUGCHECK_MSG_BUFFER = 13,     ///< bug-check: first 256 bytes of empInMsg
    EMP_E_ID_EVENTMGRMP_BUGCHECK_WORKSPACE_BUFFER =
        14, ///< bug-check: first 256 bytes of eventEntryWorkSpace
    EMP_E_ID_EVENTMGRMP_BUGCHECK_ENTRY_DATABASE =
        15,                           ///< bug-check: index, 20 pieces of 2000 bytes (15 to 34)
    EMP_E_ID_EVENTMGRMP_NEXT_ID = 35, ///< first free id
};

/** Data of the first entry: 40 bytes. */
struct EmpEventData_s {
    U8_t random[24];   //  0  first 24 bytes of the enclosure id
    U32be_t reserved1; // 24  0
    U32be_t reserved2; // 28  0
    U32be_t reserved3; // 32  0
    U32be_t reserved4; // 36  0
};
using EmpEventData_t = EmpEventData_s;
static_assert(sizeof(EmpEventData_t) == 40 && isWireImage<EmpEventData_t>);

/** Data of a test event: 50 bytes. */
struct EmpTestEvStruct_s {
    U8_t testEvData[50]; // 0  the values 0 to 49
};
using EmpTestEvStruct_t = EmpTestEvStruct_s;
static_assert(sizeof(EmpTestEvStruct_t) == 50 && isWireImage<EmpTestEvStruct_t>);

/** Data of a bug-check's first record: 196 bytes. */
struct EmpErrorMsg_s {
    U8_t empFileName[64];     //   0  text: source file without extension
    U8_t empFunctionName[64]; //  64  text: the function that failed
    U32be_t empLineNumber;    // 128  its source line
    U8_t empErrorMsg[64];     // 132  first 64 bytes of the message, not always terminated
};
using EmpErrorMsg_t = EmpErrorMsg_s;
static_assert(sizeof(EmpErrorMsg_t) == 196 && isWireImage<EmpErrorMsg_t>);
static_assert(offsetof(EmpErrorMsg_t, empLineNumber) == 128 &&
              offsetof(EmpErrorMsg_t, empErrorMsg) == 132);

/** A time of the board: seconds and microseconds of 32 bits each. */
struct EmpTimeval_s {
    U32be_t tv_sec;  // 0
    U32be_t tv_usec; // 4
};
using EmpTimeval_t = EmpTimeval_s;

/** A Unix-domain socket address of the board: 110 bytes. */
struct EmpUnixAddress_s {
    U16be_t sun_family; // 0
    U8_t sun_path[108]; // 2  text
};
using EmpUnixAddress_t = EmpUnixAddress_s;
static_assert(sizeof(EmpUnixAddress_t) == 110 && isWireImage<EmpUnixAddress_t>);

/** An IPv4 socket address of the board: 16 bytes. */
struct EmpInetAddress_s {
    U16be_t sin_family; // 0
    U16be_t sin_port;   // 2
    U8_t sin_addr[4];   // 4
    U8_t sin_zero[8];   // 8  0
};
using EmpInetAddress_t = EmpInetAddress_s;
static_assert(sizeof(EmpInetAddress_t) == 16 && isWireImage<EmpInetAddress_t>);

/**
 * Data of a bug-check's second record: the control block without its input buffer, as it lies in
 * the board's memory. 460 bytes; signed values are in two's complement.
 */
struct EmpInfo_s {
    EmpTimeval_t selectTimeout;                           //   0
    U32be_t socketFdMSM;                                  //   8
    EmpUnixAddress_t socketAddressMSM;                    //  12
    U8_t pad1[2];                                         // 122  0
    U32be_t socketFdEventArchiver;                        // 124
    EmpInetAddress_t socketAddressEventArchiver;          // 128
    U32be_t socketFdEventArchiverSet;                     // 144
    U32be_t eventLogFileFd;                               // 148
    U16be_t evManagerStatusFlag;                          // 152
    U16be_t evArchiverSocketState;                        // 154
    U32be_t empWrite;                                     // 156
    U32be_t empStart;                                     // 160
    U32be_t empStartSequenceId;                           // 164
    U32be_t empSequenceId;                                // 168
    U32be_t empEventArchiverSequenceId;                   // 172
    U32be_t empEventArchiverHandle;                       // 176
    U8_t empEnclosureId[64];                              // 180
    U8_t empBladeId[64];                                  // 244
    U32be_t empSlotId;                                    // 308
    U32be_t empInstanceNumber;                            // 312
    U32be_t mmsgEventLogMsgReceive;                       // 316
    U32be_t mmsgEventInquiryMsgReceive;                   // 320
    U32be_t mmsgEventInquiryMsgInvalid;                   // 324
    U32be_t mmsgEventSetEventArchiverReceive;             // 328
    U32be_t mmsgEventGetEventArchiverReceive;             // 332
    U32be_t mmsgEventGetEventManagerStatusReceive;        // 336
    U32be_t mmsgEventGetEventArchiverStatusReceive;       // 340
    U32be_t mmsgEventAlternateEventLogMsgReceive;         // 344
    U32be_t mmsgEventUnknownMsgReceive;                   // 348
    U32be_t mmsgEventLogMsgSend;                          // 352
    U32be_t mmsgEventResponseMsgSendSuccess;              // 356
    U32be_t mmsgEventResponseMsgSendFail;                 // 360
    U32be_t mmsgEventResponseMsgSendResourceNotAvailable; // 364
    U32be_t EAmsgEventLogMsgReceive;                      // 368
    U32be_t EAmsgEventInquiryMsgReceive;                  // 372
    U32be_t EAmsgEventInquiryMsgInvalid;                  // 376
    U32be_t EAmsgEventSetEventArchiverReceive;            // 380
    U32be_t EAmsgEventGetEventArchiverReceive;            // 384
    U32be_t EAmsgEventGetEventManagerStatusReceive;       // 388
    U32be_t EAmsgEventGetEventArchiverStatusReceive;      // 392
    U32be_t EAmsgEventUnknownMsgReceive;                  // 396
    U32be_t EAmsgEventLogMsgSend;                         // 400
    U32be_t EAmsgEventResponseMsgSendSuccess;             // 404
    U32be_t EAmsgEventResponseMsgSendFail;                // 408
    U32be_t empEventInLogFile;                            // 412
    U32be_t empEventAddToLogFile;                         // 416
    U32be_t empEventDelFromLogFile;                       // 420
    U32be_t evManagerInquiryMsgTimeout;                   // 424
    U32be_t evArchiverConnectionFailed;                   // 428
    U32be_t evArchiverConnectionAttempt;                  // 432
    EmpTimeval_t reconnectTimeout;                        // 436
    EmpTimeval_t forwardTimeout;                          // 444
    U8_t empWrapOver;                                     // 452
    U8_t forwardPendingListCount;                         // 453
    U8_t responsePendingListCount;                        // 454
    U8_t empDebug;                                        // 455  1: forced by the bug-check
    U8_t foundGap;                                        // 456
    U8_t pad2[3];                                         // 457  0
};
using EmpInfo_t = EmpInfo_s;
static_assert(sizeof(EmpInfo_t) == 460 && isWireImage<EmpInfo_t>);
static_assert(offsetof(EmpInfo_t, socketFdMSM) == 8 && offsetof(EmpInfo_t, socketAddressMSM) == 12);
static_assert(offsetof(EmpInfo_t, socketFdEventArchiver) == 124 &&
              offsetof(EmpInfo_t, socketAddressEventArchiver) == 128);
static_assert(offsetof(EmpInfo_t, socketFdEventArchiverSet) == 144);
static_assert(offsetof(EmpInfo_t, eventLogFileFd) == 148 &&
              offsetof(EmpInfo_t, evManagerStatusFlag) == 152);
static_assert(offsetof(EmpInfo_t, evArchiverSocketState) == 154 &&
              offsetof(EmpInfo_t, empWrite) == 156);
static_assert(offsetof(EmpInfo_t, empEventArchiverSequenceId) == 172);
static_assert(offsetof(EmpInfo_t, empEnclosureId) == 180 && offsetof(EmpInfo_t, empBladeId) == 244);
static_assert(offsetof(EmpInfo_t, empSlotId) == 308 &&
              offsetof(EmpInfo_t, empInstanceNumber) == 312);
static_assert(offsetof(EmpInfo_t, mmsgEventLogMsgReceive) == 316);
static_assert(offsetof(EmpInfo_t, mmsgEventResponseMsgSendResourceNotAvailable) == 364);
static_assert(offsetof(EmpInfo_t, EAmsgEventLogMsgReceive) == 368);
static_assert(offsetof(EmpInfo_t, EAmsgEventResponseMsgSendFail) == 408);
static_assert(offsetof(EmpInfo_t, empEventInLogFile) == 412);
static_assert(offsetof(EmpInfo_t, evManagerInquiryMsgTimeout) == 424);
static_assert(offsetof(EmpInfo_t, reconnectTimeout) == 436 &&
              offsetof(EmpInfo_t, forwardTimeout) == 444);
static_assert(offsetof(EmpInfo_t, empWrapOver) == 452 && offsetof(EmpInfo_t, foundGap) == 456);

#endif
