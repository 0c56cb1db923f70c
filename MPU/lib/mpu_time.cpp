#include "mpu_gbl.h"

#include <ctime>

namespace {

const char* const months_list[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                   "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

} // namespace

void get_timestamp(char* buf) {
    if (buf == nullptr) {
        return;
    }
    time_t now = time(nullptr);
    struct tm local;
    if (localtime_r(&now, &local) == nullptr) {
        return;
    }
    snprintf(buf, 64, "%s %2d %02d:%02d:%02d", months_list[local.tm_mon], local.tm_mday,
             local.tm_hour, local.tm_min, local.tm_sec);
}
