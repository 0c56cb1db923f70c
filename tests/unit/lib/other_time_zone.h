#ifndef OTHER_TIME_ZONE_H
#define OTHER_TIME_ZONE_H

/** get_tz() as another module has it. */
char* otherTimeZone();

#endif
