#include "version.h"

#include <cstdio>

// The compiler pads the day with a blank, as the field wants it, and takes both texts from
// SOURCE_DATE_EPOCH when it is set: builds can be reproduced.
const Version_Structure_t Version = {
    1, 2, 0, 3, "Version 1.2.0.3", "build-BLD_1_2_0_3", __DATE__ " " __TIME__,
};
static_assert(sizeof(__DATE__ " " __TIME__) == sizeof(Version_Structure_t::build_time));

char* VersionFullString() {
    static char text[127];
    snprintf(text, sizeof(text), "%d.%d.%d.%d | %s | %s", Version.major, Version.minor,
             Version.maintenance, Version.build, Version.ID, Version.build_time);
    return text;
}
