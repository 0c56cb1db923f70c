#include "evctl/views/params_view.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstring>

using testing::HasSubstr;

namespace {

/** Byte n of the block is n, modulo 251, but for the texts. */
MPU_PARAMS_t sampleBlock() {
    U8_t bytes[744];
    for (size_t at = 0; at < sizeof(bytes); at++) {
        bytes[at] = static_cast<U8_t>(at % 251);
    }
    memset(bytes + 120, 0, 128);
    memset(bytes + 312, 0, 384);
    memcpy(bytes + 120, "BLADE", 5);
    memset(bytes + 184, 'C', 64); // no terminator
    memcpy(bytes + 312, "/tmp/msm", 8);
    memcpy(bytes + 728, "R1\0\xFF", 4);
    MPU_PARAMS_t params;
    memcpy(&params, bytes, sizeof(params));
    return params;
}

} // namespace

TEST(ParamsView, FieldsComeFromTheirOffsets) {
    evctl::Json json = evctl::paramsJson(sampleBlock());
    EXPECT_EQ(json["version"], 0x00010203);
    EXPECT_EQ(json["slotId"], 0x08090A0B);
    EXPECT_EQ(json["numPorts"], 15);
    EXPECT_EQ(json["regBlockOffset"].dump(), "[269554195,336926231]");
    EXPECT_EQ(json["otherPresentOffset"], 0x2021);
    EXPECT_EQ(json["issIpAddress"], "40.41.42.43");
    EXPECT_EQ(json["mpuVer"], "12337.12851.13365.13879");
    EXPECT_EQ(json["chassisType"], 71);
    EXPECT_EQ(json["shmKey"], 0x4C4D4E4F);
    EXPECT_EQ(json["mgtPortNetmask"], "116.117.118.119");
    EXPECT_EQ(json["serialStr"], "BLADE");
    EXPECT_EQ(json["chassisSN"], std::string(64, 'C'));
    EXPECT_EQ(json["macAddress"][0], "F8:F9:FA:00:01:02");
    EXPECT_EQ(json["macAddress"].size(), 8U);
    EXPECT_EQ(json["mmsgDirectory"], "/tmp/msm");
    EXPECT_EQ(json["revisionLvl"], "R1");
    EXPECT_EQ(json["adapters"].size(), 2U);
}

TEST(ParamsView, EveryFieldIsThereButTheReservedOnes) {
    EXPECT_EQ(evctl::paramsJson(sampleBlock()).size(), 49U);
}

TEST(ParamsView, LinesHaveOneFieldEach) {
    std::string lines = evctl::paramsLines(evctl::paramsJson(sampleBlock()));
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 49);
    EXPECT_THAT(lines, HasSubstr("\nslotId                  134810123\n"));
    EXPECT_THAT(lines, HasSubstr("\nregBlockOffset          269554195 336926231\n"));
    EXPECT_THAT(lines, HasSubstr("\nmmsgDirectory           /tmp/msm\n"));
}
