#include "mpu_gbl.h"
#include "mpu_param_file.h"

namespace mpu {

namespace {

const NonXML_Enums_s iCharMode[] = {
    {"Driver", MPU_E_ICHAR_MODE_DRIVER},          {"ISS", MPU_E_ICHAR_MODE_ISS},
    {"StubServer", MPU_E_ICHAR_MODE_STUB_SERVER}, {"StubClient", MPU_E_ICHAR_MODE_STUB_CLIENT},
    {nullptr, MPU_E_ICHAR_MODE_DRIVER},
};
const NonXML_Enums_s haccMode[] = {
    {"StandAlone", MPU_E_HACC_MODE_STAND_ALONE}, {"DualSim", MPU_E_HACC_MODE_DUAL_SIM},
    {"eBlade", MPU_E_HACC_MODE_EBLADE},          {"Default", MPU_E_HACC_MODE_DEFAULT},
    {nullptr, MPU_E_HACC_MODE_STAND_ALONE},
};
const NonXML_Enums_s chassisType[] = {{"None", 1}, {"Model2", 2}, {"Model3", 3}, {nullptr, 1}};
const NonXML_Enums_s portConfig[] = {{"1gige", 1}, {"10gige", 2}, {nullptr, 1}};
const NonXML_Enums_s trueFalse[] = {{"True", 1}, {"False", 0}, {nullptr, 0}};
const NonXML_Enums_s batteryPolicy[] = {
    {"Unknown", 0}, {"Ignore", 1},     {"WriteThrough", 2},
    {"Quiesce", 3}, {"UPSPresent", 4}, {nullptr, 0},
};

} // namespace

#define MPU_FIELD(field) static_cast<U16_t>(offsetof(MPU_PARAMS_t, field))

// clang-format off
const NonXML_s tagList[] = {
    {"Version",               NONXML_E_TYPE_U32,      MPU_FIELD(version),               4,   1, nullptr},
    {"Flags",                 NONXML_E_TYPE_U32,      MPU_FIELD(flags),                 4,   1, nullptr},
    {"Slot",                  NONXML_E_TYPE_U32,      MPU_FIELD(slotId),                4,   1, nullptr},
    {"iCharMode",             NONXML_E_TYPE_ENUM,     MPU_FIELD(iCharMode),             1,   1, iCharMode},
    {"NumberOfPorts",         NONXML_E_TYPE_U8,       MPU_FIELD(numPorts),              1,   1, nullptr},
    {"IssIpAddress",          NONXML_E_TYPE_IPADDR,   MPU_FIELD(issIpAddress),          4,   1, nullptr},
    {"NumberOfBusses",        NONXML_E_TYPE_U8,       MPU_FIELD(numBusses),             1,   1, nullptr},
    {"NumberOfAdapters",      NONXML_E_TYPE_U8,       MPU_FIELD(numAdapters),           1,   1, nullptr},
    {"BatteryMgtPolicy",      NONXML_E_TYPE_ENUM,     MPU_FIELD(batteryMgtPolicy),      1,   1, batteryPolicy},
    {"MpuSoftwareVersion",    NONXML_E_TYPE_VERSION,  MPU_FIELD(mpuVer),                8,   1, nullptr},
    {"R7qFirmwareVersion",    NONXML_E_TYPE_VERSION,  MPU_FIELD(r7qVer),                8,   1, nullptr},
    {"AsicDeviceId",          NONXML_E_TYPE_U16,      MPU_FIELD(asicDeviceId),          2,   1, nullptr},
    {"PciVendorId",           NONXML_E_TYPE_U16,      MPU_FIELD(pciVendorId),           2,   1, nullptr},
    {"AsicRevision",          NONXML_E_TYPE_U16,      MPU_FIELD(asicRevision),          2,   1, nullptr},
    {"HaccMode",              NONXML_E_TYPE_ENUM,     MPU_FIELD(haccMode),              1,   1, haccMode},
    {"ChassisType",           NONXML_E_TYPE_ENUM,     MPU_FIELD(chassisType),           1,   1, chassisType},
    {"SerialValue",           NONXML_E_TYPE_U32,      MPU_FIELD(serialNo),              4,   1, nullptr},
    {"OUINumber",             NONXML_E_TYPE_U32,      MPU_FIELD(ouiNo),                 4,   1, nullptr},
    {"ProductIdNumber",       NONXML_E_TYPE_U32,      MPU_FIELD(productIdNo),           4,   1, nullptr},
    {"BoardRevNumber",        NONXML_E_TYPE_U32,      MPU_FIELD(boardRevNo),            4,   1, nullptr},
    {"SystemMemorySize",      NONXML_E_TYPE_SIZE,     MPU_FIELD(smSize),                4,   1, nullptr},
    {"BufferMemorySize",      NONXML_E_TYPE_SIZE,     MPU_FIELD(bmSize),                4,   1, nullptr},
    {"HaccStartingIpAddress", NONXML_E_TYPE_IPADDR,   MPU_FIELD(haccStartingIpAddress), 4,   1, nullptr},
    {"HaccNetmask",           NONXML_E_TYPE_IPADDR,   MPU_FIELD(haccNetmask),           4,   1, nullptr},
    {"MgtPortIpAddress",      NONXML_E_TYPE_IPADDR,   MPU_FIELD(mgtPortIpAddress),      4,   1, nullptr},
    {"MgtPortNetmask",        NONXML_E_TYPE_IPADDR,   MPU_FIELD(mgtPortNetmask),        4,   1, nullptr},
    {"SerialNumber",          NONXML_E_TYPE_STRING,   MPU_FIELD(serialStr),             64,  1, nullptr},
    {"ChassisSerialNumber",   NONXML_E_TYPE_STRING,   MPU_FIELD(chassisSN),             64,  1, nullptr},
    {"MacAddress",            NONXML_E_TYPE_MACADDR,  MPU_FIELD(macAddress),            8,   8, nullptr},
    {"MmsgDirectory",         NONXML_E_TYPE_STRING,   MPU_FIELD(mmsgDirectory),         128, 1, nullptr},
    {"NvramDirectory",        NONXML_E_TYPE_STRING,   MPU_FIELD(nvramDirectory),        128, 1, nullptr},
    {"LogDirectory",          NONXML_E_TYPE_STRING,   MPU_FIELD(logDirectory),          128, 1, nullptr},
    {"portConfiguration",     NONXML_E_TYPE_ENUM,     MPU_FIELD(portConfig),            1,   8, portConfig},
    {"VendorId",              NONXML_E_TYPE_BSTRING,  MPU_FIELD(vendorId),              8,   1, nullptr},
    {"ProductId",             NONXML_E_TYPE_BSTRING,  MPU_FIELD(productId),             16,  1, nullptr},
    {"RevisionLevel",         NONXML_E_TYPE_BSTRING,  MPU_FIELD(revisionLvl),           4,   1, nullptr},
    {"Bus",                   NONXML_E_TYPE_ENUM,     MPU_FIELD(bus),                   1,   2, trueFalse},
    {"Adapter",               NONXML_E_TYPE_ADAPTERS, MPU_FIELD(adapters),              4,   2, nullptr},
    {nullptr,                 NONXML_E_TYPE_U32,      0,                                0,   0, nullptr},
};
// clang-format on

const NonXML_Flag_s nonXML_Flags[] = {
    {"OtherBladePresent", 0x2},
    {"RestartRecovery", 0x4},
    {"BatterySafe", 0x8},
    {"CacheValid", 0x10},
    {"ResetAsserted", 0x20},
    {"BatteryPresent", 0x40},
    {"DisableBreakpoint", 0x10000},
    {"InitializeDrives", 0x20000},
    {"DisableTimeouts", 0x40000},
    {"ClearPersistence", 0x80000},
    {"MgtPortNotInited", 0x100000},
    {"ReduceEvents", 0x200000},
    {"CmapTracingEnabled", 0x1000000},
    {"CmapHaTracingEnabled", 0x2000000},
    {nullptr, 0},
};

} // namespace mpu
