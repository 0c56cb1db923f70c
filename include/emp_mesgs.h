/**
 * @file
 * Messages of the event manager, local and on the archiver link, and the record of a stored event.
 *
 * All structures are images: big-endian, without padding, the same on every host. docs/formats.md
 * shows the bytes. Texts of 64 bytes are NUL-terminated where their value is shorter; a value of
 * all 64 bytes has no terminator.
 */
#ifndef EMP_MESGS_H
#define EMP_MESGS_H

#include "big_endian.h"
#include "configuration.h"

#include <cstddef>

/** Message types: opcode.request.type of local messages with protocol 8, and types of the archiver
 * link. */
enum EMP_MESGS_TYPE_e : U8_t {
    EMP_E_MSGS_LOG = 1,     ///< an event to be logged; on the link also an inquiry's answer
    EMP_E_MSGS_INQUIRY = 2, ///< asks for one stored event
    EMP_E_MSGS_SET_EVENT_ARCHIVER = 3,        ///< names the Event Archiver
    EMP_E_MSGS_GET_EVENT_ARCHIVER = 4,        ///< not supported, counted only
    EMP_E_MSGS_GET_EVENT_MANAGER_STATUS = 5,  ///< asks for the state of the link
    EMP_E_MSGS_GET_EVENT_ARCHIVER_STATUS = 6, ///< archiver link only: the status handshake
    EMP_E_MSGS_ALTERNATE_LOG = 7,             ///< an event that keeps its identity and time
};

enum EMP_TYPE_e : U8_t {
    EMP_E_TYPE_INFORMATION = 1,
    EMP_E_TYPE_WARNING = 2,
    EMP_E_TYPE_ERROR = 3,
};

enum EMP_CATEGORY_e : U8_t {
    EMP_E_CATEGORY_SYSTEM = 1,
    EMP_E_CATEGORY_MANAGEMENT = 2,
    EMP_E_CATEGORY_ENVIRONMENTAL = 3,
    EMP_E_CATEGORY_DISK = 4,
    EMP_E_CATEGORY_VOLUME = 5,
    EMP_E_CATEGORY_SATA = 6,
    EMP_E_CATEGORY_SCSI = 7,
    EMP_E_CATEGORY_ISCSI = 8,
    EMP_E_CATEGORY_NETWORK = 9,
    EMP_E_CATEGORY_HARDWARE = 10,
    EMP_E_CATEGORY_IO = 11,
    EMP_E_CATEGORY_CACHE = 12,
    EMP_E_CATEGORY_ISNSC = 13,
};

/** return_code of replies and evArchiverMsgReturnCode of responses. */
enum EMP_RESPONSE_e : U8_t {
    EMP_E_RESPONSE_SUCCESS = 1,
    EMP_E_RESPONSE_FAILURE = 2,
    EMP_E_RESPONSE_RESOURCE_NOT_AVAILABLE = 3,
};

/** Positioning modes of an inquiry. */
enum EMP_INQUIRY_TYPE_e : U8_t {
    EMP_E_INQUIRY_TYPE_FIRST = 1,
    EMP_E_INQUIRY_TYPE_NEXT = 2,
    EMP_E_INQUIRY_TYPE_EXACT = 3,
    EMP_E_INQUIRY_TYPE_PREVIOUS = 4,
    EMP_E_INQUIRY_TYPE_LAST = 5,
};

/** evArchiverMsgFlag. */
enum EMP_EVENT_ARCHIVER_MSG_FLAG_e : U16_t {
    EMP_E_EVENT_ARCHIVER_MSG_REQUEST = 1,  ///< everything that the event manager sends
    EMP_E_EVENT_ARCHIVER_MSG_RESPONSE = 2, ///< everything that it accepts
};

/** An IPv4 address in network byte order, its bytes as they stand on the wire. */
struct IpAddr_s {
    U8_t bytes[4]; // 0  most significant (leftmost) part first
};
using IpAddr_t = IpAddr_s;
static_assert(sizeof(IpAddr_t) == 4 && isWireImage<IpAddr_t>);

/** Header of an event in a message: a stored record without its first 8 bytes. 152 bytes. */
struct EmpEvLogHeader_s {
    U8_t evEnclosureId[64];   //   0  text: enclosure of the blade
    U8_t evBladeId[64];       //  64  text: the blade
    U32be_t evSlotId;         // 128  slot of the blade
    U32be_t evInstanceNumber; // 132  instance of the log
    U32be_t evSequenceId;     // 136  given out by the event manager
    U32be_t evTime;           // 140  seconds since 1970-01-01 UTC
    U16be_t evStructLength;   // 144  bytes of event data behind this header, 0 to 3848
    U8_t evSource;            // 146  MMSG_EPID_e of the process that raised the event, 0 to 34
    U8_t evType;              // 147  EMP_TYPE_e, stored as given
    U8_t evCategory;          // 148  EMP_CATEGORY_e, stored as given
    U8_t evIdVersion;         // 149  version of the data's layout
    U16be_t evId;             // 150  event id within the source
};
using EmpEvLogHeader_t = EmpEvLogHeader_s;
static_assert(sizeof(EmpEvLogHeader_t) == EMP_EVENT_HEADER_SIZE && isWireImage<EmpEvLogHeader_t>);
static_assert(offsetof(EmpEvLogHeader_t, evBladeId) == 64 &&
              offsetof(EmpEvLogHeader_t, evSlotId) == 128);
static_assert(offsetof(EmpEvLogHeader_t, evInstanceNumber) == 132);
static_assert(offsetof(EmpEvLogHeader_t, evSequenceId) == 136 &&
              offsetof(EmpEvLogHeader_t, evTime) == 140);
static_assert(offsetof(EmpEvLogHeader_t, evStructLength) == 144);
static_assert(offsetof(EmpEvLogHeader_t, evSource) == 146 &&
              offsetof(EmpEvLogHeader_t, evType) == 147);
static_assert(offsetof(EmpEvLogHeader_t, evCategory) == 148);
static_assert(offsetof(EmpEvLogHeader_t, evIdVersion) == 149 &&
              offsetof(EmpEvLogHeader_t, evId) == 150);

/** Body of an event message. */
struct EmpEvLogMsg_s {
    EmpEvLogHeader_t evLogHdr; //   0
    U8_t evStruct[1];          // 152  event data, evStructLength bytes
};
using EmpEvLogMsg_t = EmpEvLogMsg_s;
static_assert(offsetof(EmpEvLogMsg_t, evStruct) == EMP_EVENT_HEADER_SIZE &&
              isWireImage<EmpEvLogMsg_t>);

/** Header of every stored event: 160 bytes in the log file and in alternate event log files. */
struct EmpEvRecord_s {
    U16be_t evRdSignature;    //   0  always 0xB68F
    U8_t evRdVersion;         //   2  written 1; 0 and 1 are read
    U8_t evRdReserved;        //   3  written 0
    U32be_t evRdCRCChecksum;  //   4  computeCRC32 from offset 8 to the end of the record (dummy: of
                              //   the header)
    U8_t evEnclosureId[64];   //   8  text: enclosure of the blade
    U8_t evBladeId[64];       //  72  text: the blade
    U32be_t evSlotId;         // 136  slot of the blade
    U32be_t evInstanceNumber; // 140  instance of the log
    U32be_t evSequenceId;     // 144  0 in a dummy entry
    U32be_t evTime;           // 148  seconds since 1970-01-01 UTC
    U16be_t evStructLength;   // 152  bytes of event data behind this header
    U8_t evSource;            // 154  MMSG_EPID_e, 0 to 34
    U8_t evType;              // 155  EMP_TYPE_e
    U8_t evCategory;          // 156  EMP_CATEGORY_e
    U8_t evIdVersion;         // 157  version of the data's layout
    U16be_t evId;             // 158  event id within the source; 27 with 1 is a dummy entry
};
using EmpEvRecord_t = EmpEvRecord_s;
static_assert(sizeof(EmpEvRecord_t) == EMP_RECORD_SIZE && isWireImage<EmpEvRecord_t>);
static_assert(offsetof(EmpEvRecord_t, evRdVersion) == 2 &&
              offsetof(EmpEvRecord_t, evRdReserved) == 3);
static_assert(offsetof(EmpEvRecord_t, evRdCRCChecksum) == 4);
static_assert(offsetof(EmpEvRecord_t, evEnclosureId) == EMP_CRC_START);
static_assert(offsetof(EmpEvRecord_t, evBladeId) == 72 && offsetof(EmpEvRecord_t, evSlotId) == 136);
static_assert(offsetof(EmpEvRecord_t, evInstanceNumber) == 140);
static_assert(offsetof(EmpEvRecord_t, evSequenceId) == 144 &&
              offsetof(EmpEvRecord_t, evTime) == 148);
static_assert(offsetof(EmpEvRecord_t, evStructLength) == 152);
static_assert(offsetof(EmpEvRecord_t, evSource) == 154 && offsetof(EmpEvRecord_t, evType) == 155);
static_assert(offsetof(EmpEvRecord_t, evCategory) == 156);
static_assert(offsetof(EmpEvRecord_t, evIdVersion) == 157 && offsetof(EmpEvRecord_t, evId) == 158);

/** A stored event: its header and the first byte of its data. */
struct EmpEvEntry_s {
    EmpEvRecord_t evRdHdr; //   0
    U8_t evStruct[1];      // 160  event data, evStructLength bytes
};
using EmpEvEntry_t = EmpEvEntry_s;
static_assert(offsetof(EmpEvEntry_t, evStruct) == EMP_RECORD_SIZE && isWireImage<EmpEvEntry_t>);

/** Body of an inquiry, local and on the archiver link: 144 bytes. */
struct EmpEvInquiryMsg_s {
    U32be_t evInquiryType;  //   0  EMP_INQUIRY_TYPE_e
    U8_t evEnclosureId[64]; //   4  text: enclosure asked about; empty means this one for FIRST and
                            //   LAST
    U8_t evBladeId[64];     //  68  text: blade asked about
    U32be_t evSlotId;       // 132  slot asked about
    U32be_t evInstanceNumber; // 136  instance asked about
    U32be_t evSeqIdInquiry;   // 140  sequence id that the mode refers to
};
using EmpEvInquiryMsg_t = EmpEvInquiryMsg_s;
static_assert(sizeof(EmpEvInquiryMsg_t) == 144 && isWireImage<EmpEvInquiryMsg_t>);
static_assert(offsetof(EmpEvInquiryMsg_t, evEnclosureId) == 4 &&
              offsetof(EmpEvInquiryMsg_t, evBladeId) == 68);
static_assert(offsetof(EmpEvInquiryMsg_t, evSlotId) == 132);
static_assert(offsetof(EmpEvInquiryMsg_t, evInstanceNumber) == 136);
static_assert(offsetof(EmpEvInquiryMsg_t, evSeqIdInquiry) == 140);

/** Body of a set-archiver request: 8 bytes. */
struct EmpSetEvArchiverMsg_s {
    IpAddr_t evArchiverIpAddress; // 0  0.0.0.0 switches the link off
    U16be_t evArchiverTcpPort;    // 4
    U8_t padding[2];              // 6  ignored
};
using EmpSetEvArchiverMsg_t = EmpSetEvArchiverMsg_s;
static_assert(sizeof(EmpSetEvArchiverMsg_t) == 8 && isWireImage<EmpSetEvArchiverMsg_t>);
static_assert(offsetof(EmpSetEvArchiverMsg_t, evArchiverTcpPort) == 4);

/** Body of the reply to a manager-status request: 20 bytes. */
struct EmpGetEvManagerStatusMsg_s {
    IpAddr_t evArchiverIpAddress;        //  0  0.0.0.0: no archiver
    U16be_t evArchiverTcpPort;           //  4
    U16be_t evManagerStatusFlag;         //  6  bit 0: the link is up or being set up
    U32be_t evManagerInquiryMsgTimeout;  //  8  inquiries that timed out
    U32be_t evArchiverConnectionFailed;  // 12  connections closed, deliberately or not
    U32be_t evArchiverConnectionAttempt; // 16  connections tried
};
using EmpGetEvManagerStatusMsg_t = EmpGetEvManagerStatusMsg_s;
static_assert(sizeof(EmpGetEvManagerStatusMsg_t) == 20 && isWireImage<EmpGetEvManagerStatusMsg_t>);
static_assert(offsetof(EmpGetEvManagerStatusMsg_t, evManagerStatusFlag) == 6);
static_assert(offsetof(EmpGetEvManagerStatusMsg_t, evManagerInquiryMsgTimeout) == 8);
static_assert(offsetof(EmpGetEvManagerStatusMsg_t, evArchiverConnectionAttempt) == 16);

/** Body of the status exchange with the archiver, the same in both directions: 176 bytes. */
struct EmpGetEvArchiverStatusMsg_s {
    U8_t evEnclosureId[64];    //   0  text
    U8_t evBladeId[64];        //  64  text
    U32be_t evSlotId;          // 128
    U32be_t evInstanceNumber;  // 132
    U32be_t evSequenceIdFirst; // 136  oldest id in the log
    U16be_t evStructLength;    // 140  data bytes of the oldest record
    U16be_t reserved1;         // 142  0
    U8_t evRandom[24];         // 144  first data bytes of the oldest record, at most 24
    U32be_t evSequenceIdLast; // 168  response: highest id the archiver holds, or the clearing bound
    U32be_t evArchiverControlFlag; // 172  response: 1 no data for this blade, 2 drop entries up to
                                   // the bound
};
using EmpGetEvArchiverStatusMsg_t = EmpGetEvArchiverStatusMsg_s;
static_assert(sizeof(EmpGetEvArchiverStatusMsg_t) == 176 &&
              isWireImage<EmpGetEvArchiverStatusMsg_t>);
static_assert(offsetof(EmpGetEvArchiverStatusMsg_t, evSequenceIdFirst) == 136);
static_assert(offsetof(EmpGetEvArchiverStatusMsg_t, evStructLength) == 140);
static_assert(offsetof(EmpGetEvArchiverStatusMsg_t, evRandom) == 144);
static_assert(offsetof(EmpGetEvArchiverStatusMsg_t, evSequenceIdLast) == 168);
static_assert(offsetof(EmpGetEvArchiverStatusMsg_t, evArchiverControlFlag) == 172);

/** Bits of evArchiverControlFlag in a response. */
enum EMP_ARCHIVER_CONTROL_FLAG_e : U32_t {
    EMP_E_ARCHIVER_CONTROL_NO_DATA = 1, ///< the archiver holds nothing of this blade
    EMP_E_ARCHIVER_CONTROL_CLEAR = 2,   ///< drop log entries up to and including evSequenceIdLast
};

/** Header of every message on the archiver link: 16 bytes. */
struct EmpEvArchiverMsgHeader_s {
    U16be_t evArchiverMsgHdrVersion; //  0  always 1
    U16be_t evArchiverMsgBodyLength; //  2  bytes behind this header
    U16be_t evArchiverMsgType;       //  4  EMP_MESGS_TYPE_e
    U16be_t evArchiverMsgFlag;       //  6  EMP_EVENT_ARCHIVER_MSG_FLAG_e
    U32be_t evArchiverMsgReturnCode; //  8  EMP_RESPONSE_e in responses, 0 in requests
    U32be_t evArchiverMsgHandle;     // 12  correlates a response with its request
};
using EmpEvArchiverMsgHeader_t = EmpEvArchiverMsgHeader_s;
static_assert(sizeof(EmpEvArchiverMsgHeader_t) == 16 && isWireImage<EmpEvArchiverMsgHeader_t>);
static_assert(offsetof(EmpEvArchiverMsgHeader_t, evArchiverMsgType) == 4);
static_assert(offsetof(EmpEvArchiverMsgHeader_t, evArchiverMsgFlag) == 6);
static_assert(offsetof(EmpEvArchiverMsgHeader_t, evArchiverMsgReturnCode) == 8);
static_assert(offsetof(EmpEvArchiverMsgHeader_t, evArchiverMsgHandle) == 12);

/** A message on the archiver link: the header and the first byte of the body. */
struct EmpEvArchiverMsg_s {
    EmpEvArchiverMsgHeader_t evArchiverMsgHdr; //  0
    U8_t user_data_start[1];                   // 16  the body
};
using EmpEvArchiverMsg_t = EmpEvArchiverMsg_s;
static_assert(offsetof(EmpEvArchiverMsg_t, user_data_start) == 16 &&
              isWireImage<EmpEvArchiverMsg_t>);

#endif
