#include "other_time_zone.h"

#include "osdep.h"

char* otherTimeZone() {
    return get_tz();
}
