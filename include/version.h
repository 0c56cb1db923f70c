/**
 * @file
 * The version of the program, filled in at build time.
 */
#ifndef VERSION_H
#define VERSION_H

#include "fixed_width.h"

/** All texts are NUL-terminated. Host byte order: the structure never leaves its process. */
struct Version_Structure_s {
    U16_t major;
    U16_t minor;
    U16_t maintenance;
    U16_t build;
    char string[32];     ///< "Version 1.2.0.3"
    char ID[64];         ///< building account and build: "build-BLD_1_2_0_3"
    char build_time[21]; ///< "Apr  7 2006 09:15:50", 20 characters
};
using Version_Structure_t = Version_Structure_s;

extern const Version_Structure_t Version;

/**
 * The version as one line, "1.2.0.3 | build-BLD_1_2_0_3 | Apr  7 2006 09:15:50".
 * @return a private static buffer, the same on every call; never NULL
 */
char* VersionFullString();

#endif
