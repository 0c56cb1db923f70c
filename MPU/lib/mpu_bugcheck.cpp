#include "mpu_gbl.h"

#include <cstdlib>

void MPU_BUGCHECK(int status, const char* text) {
    perror("MPU_BUGCHECK() encountered");
    fprintf(stderr, ": %s\n", text);
    exit(status);
}
