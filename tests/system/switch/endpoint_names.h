/**
 * @file
 * Names of the sockets, written down once more: other programs rely on every one of them.
 */
#ifndef ENDPOINT_NAMES_H
#define ENDPOINT_NAMES_H

constexpr const char* ENDPOINT_SOCKETS[34] = {
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

#endif
