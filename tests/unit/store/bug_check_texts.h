/**
 * @file
 * What bug-checks of the log file say.
 */
#ifndef STORE_BUG_CHECK_TEXTS_H
#define STORE_BUG_CHECK_TEXTS_H

inline constexpr char REACH_DUMMY[] = "Reach Dummy Entry but still not enough space!";
inline constexpr char MISMATCHING[] = "Mismatching empStartSequenceId in Event Entry!";
inline constexpr char SIGNATURE[] = "Incorrect Signature in Event Entry!";
inline constexpr char CONTINUOUS[] = "Continuous SequenceId with Gap? Bug somewhere!";
inline constexpr char LSEEK_FAILS[] = "Linux lseek function fails for Event Log File!";
inline constexpr char LSEEK_CALL_FAILS[] = "Linux lseek call fails for Event Log File!";
inline constexpr char READ_FAILS[] = "Linux read function fails for Event Log File!";
inline constexpr char WRITE_FAILS[] = "Linux write function fails for Event Log File!";

#endif
