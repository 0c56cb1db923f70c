#include "messages.h"

#include "altEventLog.h"

#include <array>
#include <cstring>

namespace fuzz {

namespace {

constexpr std::size_t RING = 1'600'000;
constexpr std::uint32_t TIME = 1'164'117'600;

template <typename Image>
Bytes bytesOfImage(const Image& image) {
    const auto* begin = reinterpret_cast<const std::uint8_t*>(&image);
    return Bytes(begin, begin + sizeof(image));
}

template <typename Field>
void setText(Field& field, const char* text) {
    std::memcpy(field, text, std::strlen(text));
}

/** Events of one length until the next does not fit before @p end. @return the id behind them */
std::uint32_t addEvents(Bytes& log, std::uint32_t firstId, std::uint16_t length, std::size_t end) {
    std::uint32_t id = firstId;
    for (; log.size() + EMP_RECORD_SIZE + length <= end; id++) {
        append(log, record({.length = length, .sequenceId = id}));
    }
    return id;
}

void addFirstEntry(Bytes& log) {
    append(log, record({.source = 27, .eventId = 2, .length = 40}));
}

void closeLog(Bytes& log) {
    append(log, dummyEntry(EMP_DUMMY_TO_END));
    log.resize(RING);
}

Bytes wrappedLog() {
    Bytes log;
    addEvents(log, 1000, 3000, 100'000);
    log.insert(log.end(), 1000, 'g');
    addEvents(log, 500, 3700, RING - 5000);
    closeLog(log);
    return log;
}

/** The last record ends with the ring. */
Bytes fullLog() {
    Bytes log;
    addFirstEntry(log);
    std::uint32_t id = addEvents(log, 1, 3840, RING - 4000);
    auto rest = static_cast<std::uint16_t>(RING - log.size() - EMP_RECORD_SIZE);
    append(log, record({.length = rest, .sequenceId = id}));
    return log;
}

Bytes makeLog(Log kind) {
    Bytes log;
    switch (kind) {
    case Log::ZEROS:
        log.resize(RING);
        break;
    case Log::SHORT:
    case Log::NEARLY_FULL:
        addFirstEntry(log);
        addEvents(log, 1, 1800, kind == Log::SHORT ? 20'000 : RING - 6000);
        closeLog(log);
        break;
    case Log::WRAPPED:
        return wrappedLog();
    case Log::FULL:
        return fullLog();
    case Log::FOREIGN:
        append(log, record({.sequenceId = 9, .ours = false}));
        closeLog(log);
        break;
    default:
        break;
    }
    return log;
}

} // namespace

void append(Bytes& to, std::span<const std::uint8_t> more) {
    to.insert(to.end(), more.begin(), more.end());
}

Bytes eventBody(const EventFields& fields) {
    EmpEvLogHeader_t header = {};
    setText(header.evEnclosureId, fields.ours ? ENCLOSURE : "CHASSIS-9");
    setText(header.evBladeId, BLADE);
    header.evSlotId = SLOT;
    header.evInstanceNumber = fields.instance;
    header.evSequenceId = fields.sequenceId;
    header.evTime = TIME;
    header.evStructLength = fields.length;
    header.evSource = fields.source;
    header.evType = EMP_E_TYPE_WARNING;
    header.evCategory = EMP_E_CATEGORY_DISK;
    header.evIdVersion = 1;
    header.evId = fields.eventId;
    Bytes body = bytesOfImage(header);
    body.insert(body.end(), fields.length, static_cast<std::uint8_t>(fields.fill));
    return body;
}

Bytes record(const EventFields& fields) {
    EmpEvRecord_t header = {};
    header.evRdSignature = EMP_RECORD_SIGNATURE;
    header.evRdVersion = fields.version;
    Bytes body = eventBody(fields);
    header.evRdCRCChecksum = computeCRC32(body.data(), static_cast<U32_t>(body.size()));
    Bytes bytes = bytesOfImage(header);
    bytes.resize(EMP_CRC_START);
    append(bytes, body);
    return bytes;
}

Bytes dummyEntry(std::uint16_t length) {
    Bytes bytes = record({.source = 27, .eventId = 1, .length = 0});
    auto& header = *reinterpret_cast<EmpEvRecord_t*>(bytes.data());
    header.evStructLength = length;
    header.evRdCRCChecksum = computeCRC32(bytes.data() + EMP_CRC_START, EMP_EVENT_HEADER_SIZE);
    return bytes;
}

Bytes localMessage(std::uint8_t type, const Bytes& body, std::uint8_t requestor,
                   std::uint32_t handle, std::uint8_t cont) {
    MMCH_t header = {};
    header.message_type = MSG_E_TYPE_MMSG;
    header.mmch_version = 1;
    header.mmsg_length = static_cast<U16_t>(sizeof(header) + body.size());
    header.opcode.request.protocol = MMSG_E_PROTOCOL_EVENTMGR;
    header.opcode.request.type = U32_t{type};
    header.requestor = requestor;
    header.mmsg_cont = cont;
    header.recipient_loc_bm[0] = 1U << MMSG_E_EPID_EVENTLOGMP;
    header.handle = handle;
    Bytes bytes = bytesOfImage(header);
    append(bytes, body);
    return bytes;
}

Bytes archiverMessage(std::uint8_t type, const Bytes& body, std::uint32_t handle,
                      std::uint32_t returnCode) {
    EmpEvArchiverMsgHeader_t header = {};
    header.evArchiverMsgHdrVersion = 1;
    header.evArchiverMsgBodyLength = static_cast<U16_t>(body.size());
    header.evArchiverMsgType = U16_t{type};
    header.evArchiverMsgFlag = EMP_E_EVENT_ARCHIVER_MSG_RESPONSE;
    header.evArchiverMsgReturnCode = returnCode;
    header.evArchiverMsgHandle = handle;
    Bytes bytes = bytesOfImage(header);
    append(bytes, body);
    return bytes;
}

Bytes inquiryBody(std::uint32_t type, std::uint32_t sequenceId, std::uint32_t instance,
                  unsigned whose) {
    EmpEvInquiryMsg_t inquiry = {};
    inquiry.evInquiryType = type;
    if (whose % 3 != 0) {
        setText(inquiry.evEnclosureId, whose % 3 == 1 ? ENCLOSURE : "CHASSIS-9");
        setText(inquiry.evBladeId, BLADE);
        inquiry.evSlotId = SLOT;
    }
    inquiry.evInstanceNumber = instance;
    inquiry.evSeqIdInquiry = sequenceId;
    return bytesOfImage(inquiry);
}

const Bytes& logOf(Log kind) {
    static std::array<Bytes, static_cast<std::size_t>(Log::KINDS)> made;
    Bytes& log = made.at(static_cast<std::size_t>(kind));
    if (log.empty()) {
        log = makeLog(kind);
    }
    return log;
}

} // namespace fuzz
