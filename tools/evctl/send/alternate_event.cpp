#include "evctl/send/alternate_event.h"

#include "altEventLog.h"

#include <stdexcept>

namespace evctl {

void checkAlternateEvent(const EventFields& fields, const Bytes& data) {
    if (data.empty()) {
        throw std::runtime_error("an alternate event needs at least 1 byte of data");
    }
    if (fields.source > MMSG_E_MAX_DEFINED_EPIDS || data.size() > EMP_MAX_STRUCT) {
        throw std::runtime_error("no alternate event: source above 34, or too much data");
    }
}

void leaveAlternateEvent(const EventFields& fields, const Bytes& data, U32_t sequenceId,
                         const MPU_PARAMS_t& params) {
    checkAlternateEvent(fields, data);
    Bytes event(EMP_EVENT_HEADER_SIZE);
    auto& header = *reinterpret_cast<EmpEvLogHeader_t*>(event.data());
    header.evSource = static_cast<U8_t>(fields.source);
    header.evType = fields.type;
    header.evCategory = fields.category;
    header.evIdVersion = fields.idVersion;
    header.evId = fields.id;
    header.evSequenceId = sequenceId;
    header.evStructLength = static_cast<U16_t>(data.size());
    event.insert(event.end(), data.begin(), data.end());
    S32_t status = altEventLogM(reinterpret_cast<const EmpEvLogMsg_t*>(event.data()), &params);
    if (status == ALT_EVENT_LOG_E_OPEN) {
        throw std::runtime_error("the alternate event log file could not be created (10001)");
    }
    if (status != ALT_EVENT_LOG_E_OK) {
        throw std::runtime_error("the alternate event log file could not be written (" +
                                 std::to_string(status) + "); an empty or partial file may remain");
    }
}

} // namespace evctl
