/** The control block of a bug-check, field by field. */
#include "common/names.h"
#include "evctl/views/crash_view.h"

#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace evctl {
namespace {

// Numbers that only the event manager's own control block has.
constexpr tools::EnumName SOCKET_STATES[] = {
    {1, 1, "EMP_E_ARCHIVER_SOCKET_ST_CONNECTED", "connected"},
    {2, 2, "EMP_E_ARCHIVER_SOCKET_ST_GET_STATUS_SENT", "get_status_sent"},
    {3, 3, "EMP_E_ARCHIVER_SOCKET_ST_OPEN", "open"},
    {4, 4, "EMP_E_ARCHIVER_SOCKET_ST_FULL", "full"},
    {5, 5, "EMP_E_ARCHIVER_SOCKET_ST_CLOSE", "close"},
};
constexpr tools::EnumName STATUS_FLAGS[] = {{0, 0, "0", "none"},
                                            {1, 1, "EMP_STATUS_FLAG_ARCHIVER", "archiver"}};
constexpr tools::EnumName WRAP_OVERS[] = {{1, 1, "EMP_E_WRAP_OVER_FALSE", "false"},
                                          {2, 2, "EMP_E_WRAP_OVER_TRUE", "true"}};

Json nameOf(std::span<const tools::EnumName> rows, U32_t value) {
    tools::NameTable names(rows);
    return names.find(value) != nullptr ? Json(names.brief(value)) : Json(nullptr);
}

S32_t signedOf(const U32be_t& field) {
    return static_cast<S32_t>(U32_t{field});
}

/** "1.000100": seconds. */
Json timeOf(const EmpTimeval_t& time) {
    std::array<char, 32> text{};
    snprintf(text.data(), text.size(), "%d.%06d", signedOf(time.tv_sec), signedOf(time.tv_usec));
    return text.data();
}

Json dotted(const U8_t (&address)[4]) {
    std::string text;
    for (U8_t byte : address) {
        text += (text.empty() ? "" : ".") + std::to_string(byte);
    }
    return text;
}

// Names as in the structure, numbers without a sign.
#define FIELD(name)                                                                                \
    {                                                                                              \
#name, U32_t {                                                                             \
            info.name                                                                              \
        }                                                                                          \
    }

void addSockets(Json& json, const EmpInfo_t& info) {
    json.update({{"selectTimeout", timeOf(info.selectTimeout)},
                 {"socketFdMSM", signedOf(info.socketFdMSM)},
                 {"socketAddressMSM",
                  {{"sun_family", U16_t{info.socketAddressMSM.sun_family}},
                   {"sun_path", escapedText(info.socketAddressMSM.sun_path)}}},
                 {"socketFdEventArchiver", signedOf(info.socketFdEventArchiver)},
                 {"socketAddressEventArchiver",
                  {{"sin_family", U16_t{info.socketAddressEventArchiver.sin_family}},
                   {"sin_port", U16_t{info.socketAddressEventArchiver.sin_port}},
                   {"sin_addr", dotted(info.socketAddressEventArchiver.sin_addr)}}},
                 {"socketFdEventArchiverSet", signedOf(info.socketFdEventArchiverSet)},
                 {"eventLogFileFd", signedOf(info.eventLogFileFd)},
                 FIELD(evManagerStatusFlag),
                 {"evManagerStatusFlagName", nameOf(STATUS_FLAGS, info.evManagerStatusFlag)},
                 FIELD(evArchiverSocketState),
                 {"evArchiverSocketStateName", nameOf(SOCKET_STATES, info.evArchiverSocketState)}});
}

void addLog(Json& json, const EmpInfo_t& info) {
    json.update({FIELD(empWrite),
                 FIELD(empStart),
                 FIELD(empStartSequenceId),
                 FIELD(empSequenceId),
                 FIELD(empEventArchiverSequenceId),
                 FIELD(empEventArchiverHandle),
                 {"empEnclosureId", escapedText(info.empEnclosureId)},
                 {"empBladeId", escapedText(info.empBladeId)},
                 FIELD(empSlotId),
                 FIELD(empInstanceNumber)});
}

void addMmsgCounters(Json& json, const EmpInfo_t& info) {
    json.update(
        {FIELD(mmsgEventLogMsgReceive), FIELD(mmsgEventInquiryMsgReceive),
         FIELD(mmsgEventInquiryMsgInvalid), FIELD(mmsgEventSetEventArchiverReceive),
         FIELD(mmsgEventGetEventArchiverReceive), FIELD(mmsgEventGetEventManagerStatusReceive),
         FIELD(mmsgEventGetEventArchiverStatusReceive), FIELD(mmsgEventAlternateEventLogMsgReceive),
         FIELD(mmsgEventUnknownMsgReceive), FIELD(mmsgEventLogMsgSend),
         FIELD(mmsgEventResponseMsgSendSuccess), FIELD(mmsgEventResponseMsgSendFail),
         FIELD(mmsgEventResponseMsgSendResourceNotAvailable)});
}

void addArchiverCounters(Json& json, const EmpInfo_t& info) {
    json.update({FIELD(EAmsgEventLogMsgReceive), FIELD(EAmsgEventInquiryMsgReceive),
                 FIELD(EAmsgEventInquiryMsgInvalid), FIELD(EAmsgEventSetEventArchiverReceive),
                 FIELD(EAmsgEventGetEventArchiverReceive),
                 FIELD(EAmsgEventGetEventManagerStatusReceive),
                 FIELD(EAmsgEventGetEventArchiverStatusReceive), FIELD(EAmsgEventUnknownMsgReceive),
                 FIELD(EAmsgEventLogMsgSend), FIELD(EAmsgEventResponseMsgSendSuccess),
                 FIELD(EAmsgEventResponseMsgSendFail)});
}

void addRest(Json& json, const EmpInfo_t& info) {
    json.update({FIELD(empEventInLogFile),
                 FIELD(empEventAddToLogFile),
                 FIELD(empEventDelFromLogFile),
                 FIELD(evManagerInquiryMsgTimeout),
                 FIELD(evArchiverConnectionFailed),
                 FIELD(evArchiverConnectionAttempt),
                 {"reconnectTimeout", timeOf(info.reconnectTimeout)},
                 {"forwardTimeout", timeOf(info.forwardTimeout)},
                 FIELD(empWrapOver),
                 {"empWrapOverName", nameOf(WRAP_OVERS, info.empWrapOver)},
                 FIELD(forwardPendingListCount),
                 FIELD(responsePendingListCount),
                 FIELD(empDebug),
                 FIELD(foundGap)});
}

#undef FIELD

} // namespace

Json controlJson(const EmpInfo_t& info) {
    Json json = Json::object();
    addSockets(json, info);
    addLog(json, info);
    addMmsgCounters(json, info);
    addArchiverCounters(json, info);
    addRest(json, info);
    return json;
}

} // namespace evctl
