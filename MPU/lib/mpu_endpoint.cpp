#include "mmsg.h"
#include "mpu/event.h"

#include <iterator>

namespace {

// An enumerator without "MMSG_E_EPID_" and a final "MP", in lower case.
constexpr const char* ENDPOINT_NAMES[] = {
    "iscsi18p",       "iscsi28p", "scsi8p",
    "cache18p",       "cache28p", "iomgr8p",
    "sata8p",         "mip8p",    "pieman8p",
    "awr8p",          "vpi8p",    "mip_local_8p",
    "ichar",          "ob0",      "ob1",
    "hacc",           "msm",      "rcp",
    "startup",        "ddlm",     "volmgr",
    "drivead",        "iscsi",    "system_config",
    "network_config", "aim",      "environ",
    "eventlog",       "snmp",     "smis",
    "smi_ind",        "isnsc",    "battery_manager",
    "es_adapter",
};
static_assert(std::size(ENDPOINT_NAMES) == MPU_EVENT_ENDPOINTS &&
              MPU_EVENT_ENDPOINTS == MMSG_E_MAX_DEFINED_EPIDS);

} // namespace

const char* MPU_endpointName(uint8_t endpoint) {
    return endpoint < MPU_EVENT_ENDPOINTS ? ENDPOINT_NAMES[endpoint] : nullptr;
}
