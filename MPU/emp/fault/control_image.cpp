#include "fault/control_image.h"

#include "diag/debug_line.h"
#include "fault/report_label.h"
#include "state/control.h"
#include "text64.h"

#include <cstddef>
#include <cstring>
#include <iterator>

namespace {

enum FIELD_KIND_e : U8_t {
    FIELD_E_NUMBER,       ///< of 1, 2 or 4 bytes
    FIELD_E_TIME,         ///< struct timeval; the line shows its seconds
    FIELD_E_UNIX_ADDRESS, ///< struct sockaddr_un; the line shows its path
    FIELD_E_INET_ADDRESS, ///< struct sockaddr_in; the line shows its address
    FIELD_E_TEXT,         ///< 64 bytes
};

struct ControlField_t {
    const char* label;
    FIELD_KIND_e kind;
    size_t offset; ///< in EmpControl_t
    size_t size;
    size_t imageOffset; ///< in EmpInfo_t
    size_t imageSize;
    size_t imageAlignment; ///< on the board
};

#define CONTROL_FIELD(kind, name, labelSuffix, imageAlignment)                                     \
    {                                                                                              \
        "empControl." #name labelSuffix, kind, offsetof(EmpControl_t, name),                       \
            sizeof(EmpControl_t::name), offsetof(EmpInfo_t, name), sizeof(EmpInfo_t::name),        \
            imageAlignment                                                                         \
    }
#define NUMBER(name) CONTROL_FIELD(FIELD_E_NUMBER, name, "", sizeof(EmpInfo_t::name))
#define TIME(name) CONTROL_FIELD(FIELD_E_TIME, name, ".tv_sec", 4)
#define TEXT(name) CONTROL_FIELD(FIELD_E_TEXT, name, "", 1)

constexpr ControlField_t controlFields[] = {
    TIME(selectTimeout),
    NUMBER(socketFdMSM),
    CONTROL_FIELD(FIELD_E_UNIX_ADDRESS, socketAddressMSM, ".sun_path", 2),
    NUMBER(socketFdEventArchiver),
    CONTROL_FIELD(FIELD_E_INET_ADDRESS, socketAddressEventArchiver, ".sin_addr.s_addr", 4),
    NUMBER(socketFdEventArchiverSet),
    NUMBER(eventLogFileFd),
    NUMBER(evManagerStatusFlag),
    NUMBER(evArchiverSocketState),
    NUMBER(empWrite),
    NUMBER(empStart),
    NUMBER(empStartSequenceId),
    NUMBER(empSequenceId),
    NUMBER(empEventArchiverSequenceId),
    NUMBER(empEventArchiverHandle),
    TEXT(empEnclosureId),
    TEXT(empBladeId),
    NUMBER(empSlotId),
    NUMBER(empInstanceNumber),
    NUMBER(mmsgEventLogMsgReceive),
    NUMBER(mmsgEventInquiryMsgReceive),
    NUMBER(mmsgEventInquiryMsgInvalid),
    NUMBER(mmsgEventSetEventArchiverReceive),
    NUMBER(mmsgEventGetEventArchiverReceive),
    NUMBER(mmsgEventGetEventManagerStatusReceive),
    NUMBER(mmsgEventGetEventArchiverStatusReceive),
    NUMBER(mmsgEventAlternateEventLogMsgReceive),
    NUMBER(mmsgEventUnknownMsgReceive),
    NUMBER(mmsgEventLogMsgSend),
    NUMBER(mmsgEventResponseMsgSendSuccess),
    NUMBER(mmsgEventResponseMsgSendFail),
    NUMBER(mmsgEventResponseMsgSendResourceNotAvailable),
    NUMBER(EAmsgEventLogMsgReceive),
    NUMBER(EAmsgEventInquiryMsgReceive),
    NUMBER(EAmsgEventInquiryMsgInvalid),
    NUMBER(EAmsgEventSetEventArchiverReceive),
    NUMBER(EAmsgEventGetEventArchiverReceive),
    NUMBER(EAmsgEventGetEventManagerStatusReceive),
    NUMBER(EAmsgEventGetEventArchiverStatusReceive),
    NUMBER(EAmsgEventUnknownMsgReceive),
    NUMBER(EAmsgEventLogMsgSend),
    NUMBER(EAmsgEventResponseMsgSendSuccess),
    NUMBER(EAmsgEventResponseMsgSendFail),
    NUMBER(empEventInLogFile),
    NUMBER(empEventAddToLogFile),
    NUMBER(empEventDelFromLogFile),
    NUMBER(evManagerInquiryMsgTimeout),
    NUMBER(evArchiverConnectionFailed),
    NUMBER(evArchiverConnectionAttempt),
    TIME(reconnectTimeout),
    TIME(forwardTimeout),
    NUMBER(empWrapOver),
    NUMBER(forwardPendingListCount),
    NUMBER(responsePendingListCount),
    NUMBER(empDebug),
    NUMBER(foundGap),
};

#undef TEXT
#undef TIME
#undef NUMBER
#undef CONTROL_FIELD

constexpr size_t alignUp(size_t offset, size_t alignment) {
    return (offset + alignment - 1) / alignment * alignment;
}

/** Whether the rows, laid out as the board's compiler does it, make up the image without a hole. */
constexpr bool rowsMakeUpTheImage() {
    size_t end = 0;
    for (const ControlField_t& field : controlFields) {
        if (field.imageOffset != alignUp(end, field.imageAlignment)) {
            return false;
        }
        end = field.imageOffset + field.imageSize;
    }
    return alignUp(end, 4) == sizeof(EmpInfo_t);
}
static_assert(rowsMakeUpTheImage());

/** Whether the rows stand in the order of the control block, up to its receive buffer, and numbers
 * are as wide there as in the image. */
constexpr bool rowsFollowTheControlBlock() {
    size_t end = 0;
    for (const ControlField_t& field : controlFields) {
        bool widthKept = field.kind != FIELD_E_NUMBER || field.size == field.imageSize;
        if (field.offset < end || !widthKept) {
            return false;
        }
        end = field.offset + field.size;
    }
    return end == offsetof(EmpControl_t, empInMsg);
}
static_assert(rowsFollowTheControlBlock());

template <typename Value>
Value load(const U8_t* at) {
    Value value;
    memcpy(&value, at, sizeof(value));
    return value;
}

template <typename Field>
void store(U8_t* at, Field value) {
    memcpy(at, &value, sizeof(value));
}

U32_t loadNumber(const U8_t* at, size_t size) {
    switch (size) {
    case 1:
        return load<U8_t>(at);
    case 2:
        return load<U16_t>(at);
    default:
        return load<U32_t>(at);
    }
}

void storeNumber(U8_t* at, size_t size, U32_t value) {
    switch (size) {
    case 1:
        store(at, static_cast<U8_t>(value));
        break;
    case 2:
        store(at, U16be_t(static_cast<U16_t>(value)));
        break;
    default:
        store(at, U32be_t(value));
        break;
    }
}

void storeTime(U8_t* at, const struct timeval& time) {
    store(at, EmpTimeval_t{static_cast<U32_t>(time.tv_sec), static_cast<U32_t>(time.tv_usec)});
}

/** Copies an address behind its family; ports and addresses are in network order already. */
void storeAddress(U8_t* at, const U8_t* address, size_t size, U16_t family) {
    memcpy(at, address, size);
    store(at, U16be_t(family));
}

void printField(const ControlField_t& field, const U8_t* at) {
    switch (field.kind) {
    case FIELD_E_NUMBER:
        empDebugLine(EMP_REPORT_LABEL "= [%d]\n", field.label,
                     static_cast<int>(loadNumber(at, field.size)));
        break;
    case FIELD_E_TIME:
        empDebugLine(EMP_REPORT_LABEL "= [%d]\n", field.label,
                     static_cast<int>(load<struct timeval>(at).tv_sec));
        break;
    case FIELD_E_UNIX_ADDRESS:
        empDebugLine(EMP_REPORT_LABEL "= [%.108s]\n", field.label,
                     empControl.socketAddressMSM.sun_path);
        break;
    case FIELD_E_INET_ADDRESS:
        empDebugLine(EMP_REPORT_LABEL "= [0x%x]\n", field.label,
                     ntohl(load<struct sockaddr_in>(at).sin_addr.s_addr));
        break;
    case FIELD_E_TEXT:
        empDebugLine(EMP_REPORT_LABEL "= [%.64s]\n", field.label, empTextArg(at));
        break;
    }
}

void storeField(const ControlField_t& field, const U8_t* from, U8_t* to) {
    switch (field.kind) {
    case FIELD_E_NUMBER:
        storeNumber(to, field.imageSize, loadNumber(from, field.size));
        break;
    case FIELD_E_TIME:
        storeTime(to, load<struct timeval>(from));
        break;
    case FIELD_E_UNIX_ADDRESS:
        storeAddress(to, from, field.imageSize, empControl.socketAddressMSM.sun_family);
        break;
    case FIELD_E_INET_ADDRESS:
        storeAddress(to, from, field.imageSize, empControl.socketAddressEventArchiver.sin_family);
        break;
    case FIELD_E_TEXT:
        memcpy(to, from, field.imageSize);
        break;
    }
}

} // namespace

void empControlPrint() {
    const U8_t* control = reinterpret_cast<const U8_t*>(&empControl);
    for (const ControlField_t& field : controlFields) {
        printField(field, control + field.offset);
    }
}

void empControlBuildInfo(EmpInfo_t* info) {
    const U8_t* control = reinterpret_cast<const U8_t*>(&empControl);
    *info = EmpInfo_t{};
    for (const ControlField_t& field : controlFields) {
        storeField(field, control + field.offset,
                   reinterpret_cast<U8_t*>(info) + field.imageOffset);
    }
}
