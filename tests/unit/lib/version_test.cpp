#include "version.h"

#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <string>

TEST(Version, FieldsOfThisBuild) {
    EXPECT_EQ(Version.major, 1);
    EXPECT_EQ(Version.minor, 2);
    EXPECT_EQ(Version.maintenance, 0);
    EXPECT_EQ(Version.build, 3);
    EXPECT_STREQ(Version.string, "Version 1.2.0.3");
    EXPECT_STREQ(Version.ID, "build-BLD_1_2_0_3");
}

TEST(Version, BuildTimeIsADateOf20Characters) {
    EXPECT_EQ(sizeof(Version.build_time), 21U);
    ASSERT_EQ(strlen(Version.build_time), 20U);
    struct tm built = {};
    const char* end = strptime(Version.build_time, "%b %e %Y %H:%M:%S", &built);
    ASSERT_NE(end, nullptr);
    EXPECT_EQ(*end, '\0');
    // Day right-aligned in two places.
    EXPECT_EQ(Version.build_time[4] == ' ', built.tm_mday < 10);
}

TEST(Version, FullStringLeavesTheTextFieldOut) {
    EXPECT_EQ(VersionFullString(),
              std::string("1.2.0.3 | build-BLD_1_2_0_3 | ") + Version.build_time);
}

TEST(Version, FullStringIsOneBuffer) {
    EXPECT_EQ(VersionFullString(), VersionFullString());
}
