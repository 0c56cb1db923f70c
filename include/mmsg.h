/**
 * @file
 * Local messages of the blade: the common header (MMCH), endpoints and protocols.
 *
 * Every message that passes through the message switch is a 64-byte MMCH followed by its body. All
 * fields are big-endian. docs/formats.md shows the bytes.
 */
#ifndef MMSG_H
#define MMSG_H

#include "big_endian.h"
#include "configuration.h"

#include <cstddef>

/** Transport message types. */
enum MSG_TYPE_e : U8_t {
    MSG_E_TYPE_MMSG = 14, ///< a message with an MMCH
};

/** First byte of the opcode: who understands the message's type. */
enum MMSG_PROTOCOL_e : U8_t {
    MMSG_E_PROTOCOL_DEFAULT = 0,
    MMSG_E_PROTOCOL_RCP = 1,
    MMSG_E_PROTOCOL_HACC = 2,
    MMSG_E_PROTOCOL_CMP = 3,
    MMSG_E_PROTOCOL_VOLMGR = 4,
    MMSG_E_PROTOCOL_DDLM = 5,
    MMSG_E_PROTOCOL_NETCFG = 6,
    MMSG_E_PROTOCOL_CMAP = 7,
    MMSG_E_PROTOCOL_EVENTMGR = 8, ///< the event manager; types are EMP_MESGS_TYPE_e
    MMSG_E_PROTOCOL_IOMGR = 9,
    MMSG_E_PROTOCOL_ISCSI = 10,
    MMSG_E_PROTOCOL_ISNSC = 11,
    MMSG_E_PROTOCOL_STARTUP = 12, ///< the Startup process; types are SUS_MMSG_TYPE_e
    MMSG_E_PROTOCOL_SHUTDOWN = 13,
    MMSG_E_PROTOCOL_BUGCHECK = 14,
    MMSG_E_PROTOCOL_SMIS = 15,
    MMSG_E_PROTOCOL_BATTERY_MANAGEMENT = 16,
    MMSG_E_PROTOCOL_FIRMWARE_UPGRADE = 17,
    MMSG_E_PROTOCOL_SES = 18,
    MMSG_E_PROTOCOL_DEVMGR = 19,
    MMSG_E_MAX_PROTOCOL = 19,
};

/** Endpoints of the message switch: senders, and bit numbers of the recipient bitmaps. */
enum MMSG_EPID_e : U8_t {
    MMSG_E_EPID_ISCSI18P = 0,
    MMSG_E_R7Q_EPID_START = 0,
    MMSG_E_EPID_ISCSI28P = 1,
    MMSG_E_EPID_SCSI8P = 2,
    MMSG_E_EPID_CACHE18P = 3,
    MMSG_E_EPID_CACHE28P = 4,
    MMSG_E_EPID_IOMGR8P = 5,
    MMSG_E_EPID_SATA8P = 6,
    MMSG_E_EPID_MIP8P = 7,
    MMSG_E_EPID_PIEMAN8P = 8,
    MMSG_E_EPID_AWR8P = 9,
    MMSG_E_EPID_VPI8P = 10,
    MMSG_E_EPID_MIP_LOCAL_8P = 11,
    MMSG_E_EPID_ICHAR = 12,
    MMSG_E_R7Q_EPID_END = 12,
    MMSG_E_MPU_EPID_START = 12,
    MMSG_E_EPID_OB0 = 13,
    MMSG_E_EPID_OB1 = 14,
    MMSG_E_EPID_HACCMP = 15,
    MMSG_E_EPID_MSMMP = 16,
    MMSG_E_EPID_RCPMP = 17,
    MMSG_E_EPID_STARTUPMP = 18, ///< the Startup process
    MMSG_E_EPID_DDLMMP = 19,
    MMSG_E_EPID_VOLMGRMP = 20,
    MMSG_E_CMAP_EPID_START = 20,
    MMSG_E_EPID_DRIVEADMP = 21,
    MMSG_E_EPID_ISCSIMP = 22,
    MMSG_E_EPID_SYSTEM_CONFIGMP = 23,
    MMSG_E_EPID_NETWORK_CONFIGMP = 24,
    MMSG_E_EPID_AIMMP = 25,
    MMSG_E_EPID_ENVIRONMP = 26,
    MMSG_E_EPID_EVENTLOGMP = 27, ///< the event manager
    MMSG_E_CMAP_EPID_END = 27,
    MMSG_E_EPID_SNMPMP = 28,
    MMSG_E_EPID_SMIS = 29,
    MMSG_E_EPID_SMI_IND = 30, ///< the management interface: gets a copy of every event
    MMSG_E_EPID_ISNSC = 31,
    MMSG_E_EPID_BATTERY_MANAGERMP = 32,
    MMSG_E_EPID_ES_ADAPTERMP = 33,
    MMSG_E_MPU_EPID_END = 34,
    MMSG_E_MAX_DEFINED_EPIDS = 34,
};

/** Bits of mmsg_cont. */
enum MMSG_CONT_e : U8_t {
    MMSG_E_CONT_RESPONSE = 0x40,    ///< the message answers a request
    MMSG_E_CONT_OTHER_BLADE = 0x80, ///< the message came from another blade
};

/** The sender's list links: two words that receivers ignore. */
struct MMCH_LH_s {
    U32be_t flink; // 0
    U32be_t blink; // 4
};
using MMCH_LH_t = MMCH_LH_s;

/** Protocol and type of a message. */
union MMCH_OPCODE_u {
    struct {
        U8_t protocol; // 0  MMSG_PROTOCOL_e
        U24be_t type;  // 1  type within the protocol
    } request;
    U32be_t whole; // 0  both as one number, the protocol in the top byte
};
using MMCH_OPCODE_t = MMCH_OPCODE_u;

struct MMCH_TIMESTAMP_s {
    U32be_t high; // 0
    U32be_t low;  // 4
};
using MMCH_TIMESTAMP_t = MMCH_TIMESTAMP_s;

/** Common header of every local message: 64 bytes. */
struct MMCH_s {
    MMCH_LH_t mmch_lh;           //  0  ignored by receivers; the event manager sends zeros
    U8_t message_type;           //  8  MSG_TYPE_e
    U8_t mmch_version;           //  9  written 1, not checked
    U16be_t mmsg_length;         // 10  whole message in bytes, this header included
    MMCH_OPCODE_t opcode;        // 12  protocol and type
    U8_t requestor;              // 16  MMSG_EPID_e of the sender
    U8_t mmsg_cont;              // 17  MMSG_CONT_e bits
    U8_t dest_ep;                // 18  destination endpoint, where the protocol uses it
    U8_t pad;                    // 19  0
    U32be_t recipient_loc_bm[2]; // 20  recipients of this blade: endpoint n is bit n % 32 of word n
                                 // / 32
    U32be_t recipient_ob_bm[2];  // 28  recipients of the other blade, in the same form
    U32be_t return_code;         // 36  result, in replies
    U32be_t handle;              // 40  the requestor's correlation value, echoed in replies
    U32be_t general_use1;        // 44
    U32be_t general_use2;        // 48
    U32be_t general_use3;        // 52
    MMCH_TIMESTAMP_t timestamp;  // 56
};
using MMCH_t = MMCH_s;
static_assert(sizeof(MMCH_t) == MMCH_SIZE && isWireImage<MMCH_t>);
static_assert(offsetof(MMCH_t, message_type) == 8 && offsetof(MMCH_t, mmch_version) == 9);
static_assert(offsetof(MMCH_t, mmsg_length) == 10 && offsetof(MMCH_t, opcode) == 12);
static_assert(offsetof(MMCH_t, requestor) == 16 && offsetof(MMCH_t, mmsg_cont) == 17);
static_assert(offsetof(MMCH_t, dest_ep) == 18 && offsetof(MMCH_t, pad) == 19);
static_assert(offsetof(MMCH_t, recipient_loc_bm) == 20 && offsetof(MMCH_t, recipient_ob_bm) == 28);
static_assert(offsetof(MMCH_t, return_code) == 36 && offsetof(MMCH_t, handle) == 40);
static_assert(offsetof(MMCH_t, general_use1) == 44 && offsetof(MMCH_t, general_use2) == 48);
static_assert(offsetof(MMCH_t, general_use3) == 52 && offsetof(MMCH_t, timestamp) == 56);

/** A message as its receiver sees it: the header and the first byte of the body. */
struct MMSG_s {
    MMCH_t mmch;             //  0
    U8_t user_data_start[1]; // 64  the body; mmsg_length - 64 bytes
};
using MMSG_t = MMSG_s;
static_assert(offsetof(MMSG_t, user_data_start) == MMCH_SIZE && isWireImage<MMSG_t>);

/** The largest local message. */
struct MMSGLS_s {
    MMCH_t mmch;                         //  0
    U8_t user_data_start[MMSG_BODY_MAX]; // 64
};
using MMSGLS_t = MMSGLS_s;
static_assert(sizeof(MMSGLS_t) == MMSG_MAX_LENGTH && isWireImage<MMSGLS_t>);

/** A short local message. */
struct MMSGSS_s {
    MMCH_t mmch;               //  0
    U8_t user_data_start[160]; // 64
};
using MMSGSS_t = MMSGSS_s;
static_assert(sizeof(MMSGSS_t) == 224 && isWireImage<MMSGSS_t>);

#endif
