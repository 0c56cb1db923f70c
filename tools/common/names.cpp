#include "common/names.h"

#include "emp_evl.h"
#include "emp_mesgs.h"
#include "mmsg.h"
#include "startup.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <iterator>

namespace tools {
namespace {

// Number and text come from one mention of the enumerator, so that they cannot part.
#define NAME(enumerator, brief)                                                                    \
    { enumerator, enumerator, #enumerator, brief }

constexpr EnumName ENDPOINTS[] = {
    NAME(MMSG_E_EPID_ISCSI18P, "iscsi18p"),
    NAME(MMSG_E_EPID_ISCSI28P, "iscsi28p"),
    NAME(MMSG_E_EPID_SCSI8P, "scsi8p"),
    NAME(MMSG_E_EPID_CACHE18P, "cache18p"),
    NAME(MMSG_E_EPID_CACHE28P, "cache28p"),
    NAME(MMSG_E_EPID_IOMGR8P, "iomgr8p"),
    NAME(MMSG_E_EPID_SATA8P, "sata8p"),
    NAME(MMSG_E_EPID_MIP8P, "mip8p"),
    NAME(MMSG_E_EPID_PIEMAN8P, "pieman8p"),
    NAME(MMSG_E_EPID_AWR8P, "awr8p"),
    NAME(MMSG_E_EPID_VPI8P, "vpi8p"),
    NAME(MMSG_E_EPID_MIP_LOCAL_8P, "mip_local_8p"),
    NAME(MMSG_E_EPID_ICHAR, "ichar"),
    NAME(MMSG_E_EPID_OB0, "ob0"),
    NAME(MMSG_E_EPID_OB1, "ob1"),
    NAME(MMSG_E_EPID_HACCMP, "hacc"),
    NAME(MMSG_E_EPID_MSMMP, "msm"),
    NAME(MMSG_E_EPID_RCPMP, "rcp"),
    NAME(MMSG_E_EPID_STARTUPMP, "startup"),
    NAME(MMSG_E_EPID_DDLMMP, "ddlm"),
    NAME(MMSG_E_EPID_VOLMGRMP, "volmgr"),
    NAME(MMSG_E_EPID_DRIVEADMP, "drivead"),
    NAME(MMSG_E_EPID_ISCSIMP, "iscsi"),
    NAME(MMSG_E_EPID_SYSTEM_CONFIGMP, "system_config"),
    NAME(MMSG_E_EPID_NETWORK_CONFIGMP, "network_config"),
    NAME(MMSG_E_EPID_AIMMP, "aim"),
    NAME(MMSG_E_EPID_ENVIRONMP, "environ"),
    NAME(MMSG_E_EPID_EVENTLOGMP, "eventlog"),
    NAME(MMSG_E_EPID_SNMPMP, "snmp"),
    NAME(MMSG_E_EPID_SMIS, "smis"),
    NAME(MMSG_E_EPID_SMI_IND, "smi_ind"),
    NAME(MMSG_E_EPID_ISNSC, "isnsc"),
    NAME(MMSG_E_EPID_BATTERY_MANAGERMP, "battery_manager"),
    NAME(MMSG_E_EPID_ES_ADAPTERMP, "es_adapter"),
};
static_assert(std::size(ENDPOINTS) == MMSG_E_MAX_DEFINED_EPIDS);

constexpr EnumName PROTOCOLS[] = {
    NAME(MMSG_E_PROTOCOL_DEFAULT, "default"),
    NAME(MMSG_E_PROTOCOL_RCP, "rcp"),
    NAME(MMSG_E_PROTOCOL_HACC, "hacc"),
    NAME(MMSG_E_PROTOCOL_CMP, "cmp"),
    NAME(MMSG_E_PROTOCOL_VOLMGR, "volmgr"),
    NAME(MMSG_E_PROTOCOL_DDLM, "ddlm"),
    NAME(MMSG_E_PROTOCOL_NETCFG, "netcfg"),
    NAME(MMSG_E_PROTOCOL_CMAP, "cmap"),
    NAME(MMSG_E_PROTOCOL_EVENTMGR, "eventmgr"),
    NAME(MMSG_E_PROTOCOL_IOMGR, "iomgr"),
    NAME(MMSG_E_PROTOCOL_ISCSI, "iscsi"),
    NAME(MMSG_E_PROTOCOL_ISNSC, "isnsc"),
    NAME(MMSG_E_PROTOCOL_STARTUP, "startup"),
    NAME(MMSG_E_PROTOCOL_SHUTDOWN, "shutdown"),
    NAME(MMSG_E_PROTOCOL_BUGCHECK, "bugcheck"),
    NAME(MMSG_E_PROTOCOL_SMIS, "smis"),
    NAME(MMSG_E_PROTOCOL_BATTERY_MANAGEMENT, "battery_management"),
    NAME(MMSG_E_PROTOCOL_FIRMWARE_UPGRADE, "firmware_upgrade"),
    NAME(MMSG_E_PROTOCOL_SES, "ses"),
    NAME(MMSG_E_PROTOCOL_DEVMGR, "devmgr"),
};
static_assert(std::size(PROTOCOLS) == MMSG_E_MAX_PROTOCOL + 1);

constexpr EnumName MESSAGE_TYPES[] = {
    NAME(EMP_E_MSGS_LOG, "log"),
    NAME(EMP_E_MSGS_INQUIRY, "inquiry"),
    NAME(EMP_E_MSGS_SET_EVENT_ARCHIVER, "set_event_archiver"),
    NAME(EMP_E_MSGS_GET_EVENT_ARCHIVER, "get_event_archiver"),
    NAME(EMP_E_MSGS_GET_EVENT_MANAGER_STATUS, "get_event_manager_status"),
    NAME(EMP_E_MSGS_GET_EVENT_ARCHIVER_STATUS, "get_event_archiver_status"),
    NAME(EMP_E_MSGS_ALTERNATE_LOG, "alternate_log"),
};
static_assert(std::size(MESSAGE_TYPES) == EMP_E_MSGS_ALTERNATE_LOG);

constexpr EnumName STARTUP_MESSAGE_TYPES[] = {
    NAME(SUS_E_MMSG_NOTIFY_INIT_COMPLETE, "notify_init_complete"),
};
static_assert(std::size(STARTUP_MESSAGE_TYPES) == SUS_E_MMSG_NOTIFY_INIT_COMPLETE);

constexpr EnumName EVENT_TYPES[] = {
    NAME(EMP_E_TYPE_INFORMATION, "information"),
    NAME(EMP_E_TYPE_WARNING, "warning"),
    NAME(EMP_E_TYPE_ERROR, "error"),
};
static_assert(std::size(EVENT_TYPES) == EMP_E_TYPE_ERROR);

constexpr EnumName CATEGORIES[] = {
    NAME(EMP_E_CATEGORY_SYSTEM, "system"),
    NAME(EMP_E_CATEGORY_MANAGEMENT, "management"),
    NAME(EMP_E_CATEGORY_ENVIRONMENTAL, "environmental"),
    NAME(EMP_E_CATEGORY_DISK, "disk"),
    NAME(EMP_E_CATEGORY_VOLUME, "volume"),
    NAME(EMP_E_CATEGORY_SATA, "sata"),
    NAME(EMP_E_CATEGORY_SCSI, "scsi"),
    NAME(EMP_E_CATEGORY_ISCSI, "iscsi"),
    NAME(EMP_E_CATEGORY_NETWORK, "network"),
    NAME(EMP_E_CATEGORY_HARDWARE, "hardware"),
    NAME(EMP_E_CATEGORY_IO, "io"),
    NAME(EMP_E_CATEGORY_CACHE, "cache"),
    NAME(EMP_E_CATEGORY_ISNSC, "isnsc"),
};
static_assert(std::size(CATEGORIES) == EMP_E_CATEGORY_ISNSC);

// EMP_E_ID_EVENTMGRMP_NEXT_ID is a bound, not an event; the pieces of the index share one name.
constexpr EnumName EVENT_MANAGER_EVENTS[] = {
    NAME(EMP_E_ID_EVENTMGRMP_DUMMY, "dummy"),
    NAME(EMP_E_ID_EVENTMGRMP_FIRST, "first"),
    NAME(EMP_E_ID_EVENTMGRMP_TEST, "test"),
    NAME(EMP_E_ID_EVENTMGRMP_CORRUPTED_EVENT_LOG_FILE, "corrupted_event_log_file"),
    NAME(EMP_E_ID_EVENTMGRMP_BUGCHECK_ERROR_MSG, "bugcheck_error_msg"),
    NAME(EMP_E_ID_EVENTMGRMP_BUGCHECK_INFO, "bugcheck_info"),
    NAME(EMP_E_ID_EVENTMGRMP_BUGCHECK_MSG_BUFFER, "bugcheck_msg_buffer"),
    NAME(EMP_E_ID_EVENTMGRMP_BUGCHECK_WORKSPACE_BUFFER, "bugcheck_workspace_buffer"),
    {EMP_E_ID_EVENTMGRMP_BUGCHECK_ENTRY_DATABASE, EMP_E_ID_EVENTMGRMP_NEXT_ID - 1,
     "EMP_E_ID_EVENTMGRMP_BUGCHECK_ENTRY_DATABASE", "bugcheck_entry_database"},
};
static_assert(std::size(EVENT_MANAGER_EVENTS) == 9);

constexpr EnumName STARTUP_EVENTS[] = {
    NAME(SUS_E_EM_MSG_STRING, "string"),
    NAME(SUS_E_EM_MSG_MMCH, "mmch"),
    NAME(SUS_E_EM_MSG_PARTIAL_MMSG, "partial_mmsg"),
    NAME(SUS_E_EM_MSG_SIGNAL, "signal"),
};
static_assert(std::size(STARTUP_EVENTS) == SUS_E_EM_MSG_SIGNAL);

constexpr EnumName INQUIRY_TYPES[] = {
    NAME(EMP_E_INQUIRY_TYPE_FIRST, "first"), NAME(EMP_E_INQUIRY_TYPE_NEXT, "next"),
    NAME(EMP_E_INQUIRY_TYPE_EXACT, "exact"), NAME(EMP_E_INQUIRY_TYPE_PREVIOUS, "previous"),
    NAME(EMP_E_INQUIRY_TYPE_LAST, "last"),
};
static_assert(std::size(INQUIRY_TYPES) == EMP_E_INQUIRY_TYPE_LAST);

constexpr EnumName RESPONSES[] = {
    NAME(EMP_E_RESPONSE_SUCCESS, "success"),
    NAME(EMP_E_RESPONSE_FAILURE, "failure"),
    NAME(EMP_E_RESPONSE_RESOURCE_NOT_AVAILABLE, "resource_not_available"),
};
static_assert(std::size(RESPONSES) == EMP_E_RESPONSE_RESOURCE_NOT_AVAILABLE);

#undef NAME

constexpr NameTable NO_NAMES{std::span<const EnumName>{}};

bool equalIgnoringCase(std::string_view left, std::string_view right) {
    return std::ranges::equal(left, right, [](unsigned char a, unsigned char b) {
        return std::tolower(a) == std::tolower(b);
    });
}

} // namespace

constinit const NameTable endpointNames{ENDPOINTS};
constinit const NameTable protocolNames{PROTOCOLS};
constinit const NameTable messageTypeNames{MESSAGE_TYPES};
constinit const NameTable startupMessageTypeNames{STARTUP_MESSAGE_TYPES};
constinit const NameTable eventTypeNames{EVENT_TYPES};
constinit const NameTable categoryNames{CATEGORIES};
constinit const NameTable eventManagerEventNames{EVENT_MANAGER_EVENTS};
constinit const NameTable startupEventNames{STARTUP_EVENTS};
constinit const NameTable inquiryTypeNames{INQUIRY_TYPES};
constinit const NameTable responseNames{RESPONSES};

const EnumName* NameTable::find(U32_t value) const {
    auto row = std::ranges::find_if(
        rows_, [value](const EnumName& name) { return value >= name.first && value <= name.last; });
    return row == rows_.end() ? nullptr : &*row;
}

std::string NameTable::brief(U32_t value) const {
    const EnumName* row = find(value);
    return row ? std::string(row->brief) : std::to_string(value);
}

std::string NameTable::full(U32_t value) const {
    const EnumName* row = find(value);
    return row ? std::string(row->full) : std::to_string(value);
}

std::optional<U32_t> NameTable::value(std::string_view name) const {
    auto row = std::ranges::find_if(rows_, [name](const EnumName& candidate) {
        return equalIgnoringCase(name, candidate.brief) || equalIgnoringCase(name, candidate.full);
    });
    return row == rows_.end() ? std::nullopt : std::optional(row->first);
}

std::optional<U32_t> NameTable::valueOrNumber(std::string_view text, U32_t max) const {
    std::optional<U32_t> named = value(text);
    return named ? named : parseNumber(text, max);
}

const NameTable& eventNamesOf(U32_t source) {
    switch (source) {
    case MMSG_E_EPID_EVENTLOGMP:
        return eventManagerEventNames;
    case MMSG_E_EPID_STARTUPMP:
        return startupEventNames;
    default:
        return NO_NAMES;
    }
}

const NameTable& messageTypeNamesOf(U32_t protocol) {
    switch (protocol) {
    case MMSG_E_PROTOCOL_EVENTMGR:
        return messageTypeNames;
    case MMSG_E_PROTOCOL_STARTUP:
        return startupMessageTypeNames;
    default:
        return NO_NAMES;
    }
}

std::optional<U32_t> parseNumber(std::string_view text, U32_t max) {
    int base = 10;
    if (text.starts_with("0x") || text.starts_with("0X")) {
        base = 16;
        text.remove_prefix(2);
    }
    U32_t number = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    if (error != std::errc() || end != text.data() + text.size() || number > max) {
        return std::nullopt;
    }
    return number;
}

} // namespace tools
