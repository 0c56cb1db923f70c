#include "evlog/evlog.h"

#include "altEventLog.h"
#include "evlog/search.h"

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
    if (computeCRC32(bytes.data() + EMP_CRC_START, EMP_EVENT_HEADER_SIZE + bodyLength) !=
        header.evRdCRCChecksum) {
        return EVLOG_E_REASON_CHECKSUM;
    }
    *record = {.offset = 0,
               .header = &header,
               .body = bytes.subspan(EMP_RECORD_SIZE, bodyLength),
               .role = evlogIsDummy(header) ? EVLOG_E_ROLE_DUMMY : EVLOG_E_ROLE_NEWEST,
               .taken = false};
    return EVLOG_E_REASON_NONE;
}
