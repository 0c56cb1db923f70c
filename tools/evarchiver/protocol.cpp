#include "protocol.h"

#include <algorithm>
#include <cstring>

namespace evarchive {
namespace {

// The header's fields as ranges of bytes: a range is judged once its last byte is there.
constexpr std::size_t VERSION_END = 2;
constexpr std::size_t LENGTH_END = 4;
constexpr std::size_t TYPE_END = 6;
constexpr std::size_t FLAG_END = 8;
constexpr std::size_t EVENT_LENGTH_END =
    HEADER_SIZE + offsetof(EmpEvLogHeader_t, evStructLength) + sizeof(U16be_t);
constexpr std::size_t EVENT_SOURCE_END = HEADER_SIZE + offsetof(EmpEvLogHeader_t, evSource) + 1;
constexpr std::size_t INQUIRY_TYPE_END = HEADER_SIZE + sizeof(U32be_t);

U16_t read16(View bytes, std::size_t offset) {
    return static_cast<U16_t>((bytes[offset] << 8) | bytes[offset + 1]);
}

U32_t read32(View bytes, std::size_t offset) {
    return (U32_t{read16(bytes, offset)} << 16) | read16(bytes, offset + 2);
}

// A field of two bytes of which perhaps only the first is there: can it become a value up to
// `largest`?
bool canBeUpTo(View bytes, std::size_t offset, U16_t largest) {
    return bytes.size() <= offset || bytes[offset] <= (largest >> 8);
}

bool isKnownType(U16_t type) {
    return type == EMP_E_MSGS_LOG || type == EMP_E_MSGS_INQUIRY ||
           type == EMP_E_MSGS_GET_EVENT_ARCHIVER_STATUS;
}

bool isLengthOfType(U16_t length, U16_t type) {
    switch (type) {
    case EMP_E_MSGS_LOG:
        return length >= EMP_EVENT_HEADER_SIZE && length <= LARGEST_EVENT_BODY;
    case EMP_E_MSGS_INQUIRY:
        return length == sizeof(EmpEvInquiryMsg_t);
    default:
        return length == sizeof(EmpGetEvArchiverStatusMsg_t);
    }
}

const char* wrongInHeader(View bytes) {
    if (!canBeUpTo(bytes, 0, HEADER_VERSION) ||
        (bytes.size() >= VERSION_END && read16(bytes, 0) != HEADER_VERSION)) {
        return "header version is not 1";
    }
    if (!canBeUpTo(bytes, VERSION_END, LARGEST_EVENT_BODY) ||
        (bytes.size() >= LENGTH_END && read16(bytes, VERSION_END) > LARGEST_EVENT_BODY)) {
        return "body length is too large";
    }
    if (!canBeUpTo(bytes, LENGTH_END, EMP_E_MSGS_GET_EVENT_ARCHIVER_STATUS) ||
        (bytes.size() >= TYPE_END && !isKnownType(read16(bytes, LENGTH_END)))) {
        return "message type is not one that is sent to an archiver";
    }
    if (bytes.size() >= TYPE_END &&
        !isLengthOfType(read16(bytes, VERSION_END), read16(bytes, LENGTH_END))) {
        return "body length does not fit the message type";
    }
    if (!canBeUpTo(bytes, TYPE_END, EMP_E_EVENT_ARCHIVER_MSG_REQUEST) ||
        (bytes.size() >= FLAG_END && read16(bytes, TYPE_END) != EMP_E_EVENT_ARCHIVER_MSG_REQUEST)) {
        return "flag is not REQUEST";
    }
    return nullptr;
}

const char* wrongInEvent(View bytes) {
    if (bytes.size() >= EVENT_LENGTH_END &&
        read16(bytes, EVENT_LENGTH_END - 2) + EMP_EVENT_HEADER_SIZE != read16(bytes, VERSION_END)) {
        return "evStructLength does not fit the body length";
    }
    if (bytes.size() >= EVENT_SOURCE_END && bytes[EVENT_SOURCE_END - 1] > LARGEST_SOURCE) {
        return "evSource is no endpoint that logs events";
    }
    return nullptr;
}

const char* wrongInInquiry(View bytes) {
    if (bytes.size() < INQUIRY_TYPE_END) {
        return nullptr;
    }
    const U32_t type = read32(bytes, HEADER_SIZE);
    return type < EMP_E_INQUIRY_TYPE_FIRST || type > EMP_E_INQUIRY_TYPE_LAST
               ? "evInquiryType is no inquiry"
               : nullptr;
}

const char* wrongInBody(View bytes) {
    switch (typeOf(bytes)) {
    case EMP_E_MSGS_LOG:
        return wrongInEvent(bytes);
    case EMP_E_MSGS_INQUIRY:
        return wrongInInquiry(bytes);
    default:
        return nullptr;
    }
}

std::size_t wireSize(View bytes) {
    const std::size_t size = HEADER_SIZE + read16(bytes, VERSION_END);
    return typeOf(bytes) == EMP_E_MSGS_GET_EVENT_ARCHIVER_STATUS ? size + STATUS_REQUEST_TRAILER
                                                                 : size;
}

} // namespace

Judgement judgeBorder(View bytes) {
    if (const char* reason = wrongInHeader(bytes); reason != nullptr) {
        return {Border::LOST, 0, reason};
    }
    if (bytes.size() < HEADER_SIZE) {
        return {};
    }
    if (const char* reason = wrongInBody(bytes); reason != nullptr) {
        return {Border::LOST, 0, reason};
    }
    const std::size_t size = wireSize(bytes);
    return bytes.size() >= size ? Judgement{Border::WHOLE, size, ""} : Judgement{};
}

U16_t typeOf(View request) {
    return read16(request, LENGTH_END);
}

U32_t handleOf(View request) {
    return read32(request, offsetof(EmpEvArchiverMsgHeader_t, evArchiverMsgHandle));
}

View bodyOf(View request) {
    return request.subspan(HEADER_SIZE, read16(request, VERSION_END));
}

std::string textOf(const U8_t (&field)[EMP_ID_TEXT_SIZE]) {
    const auto* text = reinterpret_cast<const char*>(field);
    return {text, strnlen(text, EMP_ID_TEXT_SIZE)};
}

Bytes makeResponse(U16_t type, U32_t returnCode, U32_t handle, View body) {
    EmpEvArchiverMsgHeader_t header{};
    header.evArchiverMsgHdrVersion = HEADER_VERSION;
    header.evArchiverMsgBodyLength = static_cast<U16_t>(body.size());
    header.evArchiverMsgType = type;
    header.evArchiverMsgFlag = U16_t{EMP_E_EVENT_ARCHIVER_MSG_RESPONSE};
    header.evArchiverMsgReturnCode = returnCode;
    header.evArchiverMsgHandle = handle;
    Bytes message(sizeof(header) + body.size());
    std::ranges::copy(viewOf(header), message.begin());
    std::ranges::copy(body, message.begin() + sizeof(header));
    return message;
}

Bytes makeEventAnswer(U32_t handle, View event) {
    return makeResponse(EMP_E_MSGS_LOG, EMP_E_RESPONSE_SUCCESS, handle, event);
}

Bytes makeEmptyAnswer(U32_t handle, const EmpEvInquiryMsg_t& inquiry, EMP_RESPONSE_e returnCode) {
    EmpEvLogHeader_t body{};
    std::ranges::copy(inquiry.evEnclosureId, body.evEnclosureId);
    std::ranges::copy(inquiry.evBladeId, body.evBladeId);
    body.evSlotId = inquiry.evSlotId;
    body.evInstanceNumber = inquiry.evInstanceNumber;
    body.evSequenceId = inquiry.evSeqIdInquiry;
    return makeResponse(EMP_E_MSGS_LOG, returnCode, handle, viewOf(body));
}

Bytes makeStatusAnswer(U32_t handle, const EmpGetEvArchiverStatusMsg_t& request,
                       U32_t sequenceIdLast, U32_t controlFlag) {
    EmpGetEvArchiverStatusMsg_t body = request;
    body.evSequenceIdLast = sequenceIdLast;
    body.evArchiverControlFlag = controlFlag;
    return makeResponse(EMP_E_MSGS_GET_EVENT_ARCHIVER_STATUS, EMP_E_RESPONSE_SUCCESS, handle,
                        viewOf(body));
}

} // namespace evarchive
