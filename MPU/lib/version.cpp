#include "version.h"

#include <cstdio>

// The build sets it from SOURCE_DATE_EPOCH, so that builds can be reproduced.
#ifndef MPU_BUILD_TIME
// The compiler pads the day with a blank, as the field wants it.
#define MPU_BUILD_TIME __DATE__ " " __TIME__
#endif

const Version_Structure_t Version = {
    1, 2, 0, 3, "Version 1.2.0.3", "build-BLD_1_2_0_3", MPU_BUILD_TIME,
};
static_assert(sizeof(MPU_BUILD_TIME) == sizeof(Version_Structure_t::build_time));

char* VersionFullString() {
    static char text[127];
    snprintf(text, sizeof(text), "%d.%d.%d.%d | %s | %s", Version.major, Version.minor,
             Version.maintenance, Version.build, Version.ID, Version.build_time);
    return text;
}
