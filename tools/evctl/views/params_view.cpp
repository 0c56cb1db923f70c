#include "evctl/views/params_view.h"

#include "evctl/views/lines.h"

#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace evctl {
namespace {

// Overloads for every kind of field, so that the list below is names only.
Json valueOf(U8_t field) {
    return field;
}

Json valueOf(const U16be_t& field) {
    return U16_t{field};
}

Json valueOf(const U32be_t& field) {
    return U32_t{field};
}

Json valueOf(const MpuVersion_t& version) {
    return std::to_string(version.major) + "." + std::to_string(version.minor) + "." +
           std::to_string(version.maintNum) + "." + std::to_string(version.buildNum);
}

Json valueOf(const MpuMacAddress_t& mac) {
    std::array<char, 24> text{};
    const U8_t* byte = mac.address;
    snprintf(text.data(), text.size(), "%02X:%02X:%02X:%02X:%02X:%02X", byte[0], byte[1], byte[2],
             byte[3], byte[4], byte[5]);
    return text.data();
}

template <typename Field, size_t Count>
Json valueOf(const Field (&fields)[Count]) {
    Json array = Json::array();
    for (const Field& field : fields) {
        array.push_back(valueOf(field));
    }
    return array;
}

template <typename Character, size_t Size>
Json textOf(const Character (&field)[Size]) {
    return escapedText({reinterpret_cast<const U8_t*>(field), Size});
}

Json addressOf(const U32be_t& field) {
    U32_t address = field;
    return std::to_string(address >> 24) + "." + std::to_string(address >> 16 & 0xFF) + "." +
           std::to_string(address >> 8 & 0xFF) + "." + std::to_string(address & 0xFF);
}

void addBlade(Json& json, const MPU_PARAMS_t& params) {
    json.update({{"version", valueOf(params.version)},
                 {"flags", valueOf(params.flags)},
                 {"slotId", valueOf(params.slotId)},
                 {"bladeType", valueOf(params.bladeType)},
                 {"disklineMode", valueOf(params.disklineMode)},
                 {"iCharMode", valueOf(params.iCharMode)},
                 {"numPorts", valueOf(params.numPorts)},
                 {"regBlockOffset", valueOf(params.regBlockOffset)},
                 {"regBlockSize", valueOf(params.regBlockSize)},
                 {"otherPresentOffset", valueOf(params.otherPresentOffset)},
                 {"otherPresentBlock", valueOf(params.otherPresentBlock)},
                 {"otherPresentBit", valueOf(params.otherPresentBit)},
                 {"resetOtherOffset", valueOf(params.resetOtherOffset)},
                 {"resetOtherBlock", valueOf(params.resetOtherBlock)},
                 {"resetOtherBit", valueOf(params.resetOtherBit)},
                 {"issIpAddress", addressOf(params.issIpAddress)},
                 {"numBusses", valueOf(params.numBusses)},
                 {"numAdapters", valueOf(params.numAdapters)},
                 {"batteryMgtPolicy", valueOf(params.batteryMgtPolicy)}});
}

void addHardware(Json& json, const MPU_PARAMS_t& params) {
    json.update({{"mpuVer", valueOf(params.mpuVer)},
                 {"r7qVer", valueOf(params.r7qVer)},
                 {"asicDeviceId", valueOf(params.asicDeviceId)},
                 {"pciVendorId", valueOf(params.pciVendorId)},
                 {"asicRevision", valueOf(params.asicRevision)},
                 {"haccMode", valueOf(params.haccMode)},
                 {"chassisType", valueOf(params.chassisType)},
                 {"serialNo", valueOf(params.serialNo)},
                 {"shmKey", valueOf(params.shmKey)},
                 {"ouiNo", valueOf(params.ouiNo)},
                 {"productIdNo", valueOf(params.productIdNo)},
                 {"boardRevNo", valueOf(params.boardRevNo)},
                 {"smSize", valueOf(params.smSize)},
                 {"bmSize", valueOf(params.bmSize)}});
}

void addPlaces(Json& json, const MPU_PARAMS_t& params) {
    json.update({{"haccStartingIpAddress", addressOf(params.haccStartingIpAddress)},
                 {"haccNetmask", addressOf(params.haccNetmask)},
                 {"mgtPortIpAddress", addressOf(params.mgtPortIpAddress)},
                 {"mgtPortNetmask", addressOf(params.mgtPortNetmask)},
                 {"serialStr", textOf(params.serialStr)},
                 {"chassisSN", textOf(params.chassisSN)},
                 {"macAddress", valueOf(params.macAddress)},
                 {"mmsgDirectory", textOf(params.mmsgDirectory)},
                 {"nvramDirectory", textOf(params.nvramDirectory)},
                 {"logDirectory", textOf(params.logDirectory)},
                 {"portConfig", valueOf(params.portConfig)},
                 {"vendorId", textOf(params.vendorId)},
                 {"productId", textOf(params.productId)},
                 {"revisionLvl", textOf(params.revisionLvl)},
                 {"bus", valueOf(params.bus)},
                 {"adapters", valueOf(params.adapters)}});
}

} // namespace

Json paramsJson(const MPU_PARAMS_t& params) {
    Json json = Json::object();
    addBlade(json, params);
    addHardware(json, params);
    addPlaces(json, params);
    return json;
}

std::string paramsLines(const Json& json) {
    return namedLines(json, 24);
}

} // namespace evctl
