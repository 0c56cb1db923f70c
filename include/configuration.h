/**
 * @file
 * Constants of the build: sizes and limits that several programs of the blade share, each shown
 * with how it comes about.
 */
#ifndef CONFIGURATION_H
#define CONFIGURATION_H

#include "fixed_width.h"

// --- Local messages ------------------------------------------------------------------------------
constexpr U16_t MMCH_SIZE = 64;         ///< header of every local message
constexpr U16_t MMSG_BODY_MAX = 4000;   ///< largest body of a local message
constexpr U16_t MMSG_MAX_LENGTH = 4064; ///< largest local message: header and largest body
static_assert(MMSG_MAX_LENGTH == MMCH_SIZE + MMSG_BODY_MAX);

// --- Events --------------------------------------------------------------------------------------
constexpr U16_t EMP_RECORD_SIZE = 160; ///< header of every stored event
constexpr U16_t EMP_CRC_START = 8;     ///< the checksum covers a record from here on
constexpr U16_t EMP_EVENT_HEADER_SIZE =
    152; ///< event header in a message; what a record's CRC covers of its header
static_assert(EMP_EVENT_HEADER_SIZE == EMP_RECORD_SIZE - EMP_CRC_START);
constexpr U16_t EMP_EVENT_MMSG_SIZE = 216; ///< local message that carries an event without data
static_assert(EMP_EVENT_MMSG_SIZE == MMCH_SIZE + EMP_EVENT_HEADER_SIZE);
constexpr U16_t EMP_MAX_STRUCT =
    3848; ///< largest event data, so that the event fits in one local message
static_assert(EMP_MAX_STRUCT == MMSG_MAX_LENGTH - EMP_EVENT_MMSG_SIZE);
constexpr U16_t EMP_RECORD_SIGNATURE = 0xB68F;
constexpr U8_t EMP_RECORD_VERSION = 1; ///< written; 0 and 1 are read

// --- The log file --------------------------------------------------------------------------------
constexpr U32_t EMP_LOG_FILE_SIZE = 1'600'000;   ///< bytes of the ring
constexpr U32_t EMP_LOG_LAST_HEADER = 1'599'840; ///< last offset at which a record header fits
static_assert(EMP_LOG_LAST_HEADER == EMP_LOG_FILE_SIZE - EMP_RECORD_SIZE);
constexpr U32_t EMP_INDEX_ENTRIES = 10'000; ///< records that fit in the file at most
static_assert(EMP_INDEX_ENTRIES == EMP_LOG_FILE_SIZE / EMP_RECORD_SIZE);
constexpr U32_t EMP_DUMMY_TO_END =
    65'535; ///< a dummy entry of this length runs to the end of the file

// --- Where things lie ----------------------------------------------------------------------------
constexpr char EMP_MSM_SOCKET_NAME[] = "/eventlog";                 ///< below mmsgDirectory
constexpr char EMP_LOG_FILE_NAME[] = "/kelta_eventlog";             ///< below nvramDirectory
constexpr char EMP_DEBUG_LOG_FILE_NAME[] = "/kelta_eventlog.debug"; ///< below nvramDirectory
constexpr char EMP_AEL_DIRECTORY_NAME[] = "/aelfiles";              ///< below nvramDirectory
constexpr char EMP_AEL_FILE_PREFIX[] = "kelta_alteventlog"; ///< of every alternate event log file

// --- Texts ---------------------------------------------------------------------------------------
constexpr U32_t EMP_ID_TEXT_SIZE = 64; ///< enclosure and blade ids; may hold no NUL
constexpr U32_t EMP_DIRECTORY_TEXT_SIZE =
    128; ///< directories of the parameter block; may hold no NUL

#endif
