#include "evlog/evlog.h"

#include "altEventLog.h"
#include "evlog/search.h"
#include "mmsg.h"

namespace {

bool checksumIsGood(std::span<const U8_t> bytes, const EmpEvRecord_t& header, U32_t bodyLength) {
    return computeCRC32(bytes.data() + EMP_CRC_START, EMP_EVENT_HEADER_SIZE + bodyLength) ==
           header.evRdCRCChecksum;
}

EvlogRecord_t recordAt(std::span<const U8_t> bytes, const EmpEvRecord_t& header, U32_t bodyLength) {
    return {.offset = 0,
            .header = &header,
            .body = bytes.subspan(EMP_RECORD_SIZE, bodyLength),
            .role = evlogIsDummy(header) ? EVLOG_E_ROLE_DUMMY : EVLOG_E_ROLE_NEWEST,
            .taken = false};
}

} // namespace

EVLOG_REASON_e evlogReadRecord(std::span<const U8_t> bytes, EvlogRecord_t* record) {
    if (bytes.size() < EMP_RECORD_SIZE) {
        return EVLOG_E_REASON_NO_HEADER;
    }
    const EmpEvRecord_t& header = *evlogHeaderAt(bytes, 0);
    EVLOG_REASON_e reason = evlogJudgeHeader(header);
    if (reason != EVLOG_E_REASON_NONE) {
        return reason;
    }
    U32_t bodyLength = evlogBodyLength(header);
    if (bytes.size() < EMP_RECORD_SIZE + size_t{bodyLength}) {
        return EVLOG_E_REASON_CUT;
    }
    if (!checksumIsGood(bytes, header, bodyLength)) {
        return EVLOG_E_REASON_CHECKSUM;
    }
    *record = recordAt(bytes, header, bodyLength);
    return EVLOG_E_REASON_NONE;
}

EVLOG_REASON_e evlogReadAlternate(std::span<const U8_t> bytes, EvlogRecord_t* record) {
    if (bytes.size() < EMP_RECORD_SIZE) {
        return EVLOG_E_REASON_NO_HEADER;
    }
    const EmpEvRecord_t& header = *evlogHeaderAt(bytes, 0);
    // KEEP: the version is not looked at, nor is what lies behind the data: the start does neither.
    U32_t bodyLength = header.evStructLength;
    if (bytes.size() < EMP_RECORD_SIZE + size_t{bodyLength}) {
        return EVLOG_E_REASON_CUT;
    }
    if (header.evRdSignature != EMP_RECORD_SIGNATURE) {
        return EVLOG_E_REASON_NO_HEADER;
    }
    if (!checksumIsGood(bytes, header, bodyLength)) {
        return EVLOG_E_REASON_CHECKSUM;
    }
    if (header.evSource > MMSG_E_MAX_DEFINED_EPIDS) {
        return EVLOG_E_REASON_SOURCE;
    }
    if (bodyLength > EMP_MAX_STRUCT) {
        return EVLOG_E_REASON_LENGTH;
    }
    *record = recordAt(bytes, header, bodyLength);
    return EVLOG_E_REASON_NONE;
}
