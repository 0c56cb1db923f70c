// The clock of a 32-bit host with 64 bits. Set before any header, and in this file alone: nothing
// that it shares with another file may hold a time_t.
#define _TIME_BITS 64

#include "mpu_gbl.h"

#include <ctime>

static_assert(sizeof(time_t) == sizeof(S64_t));

namespace {

const char* const months_list[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                   "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

} // namespace

int mpuGetTime64(S64_t* seconds, S32_t* microseconds) {
    struct timeval now;
    int result = gettimeofday(&now, nullptr);
    if (result == 0) {
        *seconds = now.tv_sec;
        *microseconds = static_cast<S32_t>(now.tv_usec);
    }
    return result;
}

S64_t mpuGetSecond() {
    return time(nullptr);
}

void get_timestamp(char* buf) {
    if (buf == nullptr) {
        return;
    }
    time_t now = mpuGetSecond();
    struct tm local;
    // Notices a zone that was changed since the last call, which localtime_r alone does not.
    tzset();
    if (localtime_r(&now, &local) == nullptr) {
        return;
    }
    snprintf(buf, 64, "%s %2d %02d:%02d:%02d", months_list[local.tm_mon], local.tm_mday,
             local.tm_hour, local.tm_min, local.tm_sec);
}
