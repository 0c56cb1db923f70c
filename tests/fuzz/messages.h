/**
 * @file
 * What the targets around the event manager say to it: messages, records and logs, sound by
 * default.
 */
#ifndef TESTS_FUZZ_MESSAGES_H
#define TESTS_FUZZ_MESSAGES_H

#include "fuzz.h"

#include "emp_mesgs.h"
#include "mmsg.h"

namespace fuzz {

// Whose blade it is.
constexpr char ENCLOSURE[] = "CHASSIS-1";
constexpr char BLADE[] = "BLADE-A";
constexpr std::uint32_t SLOT = 2;

/** The fields of an event that an input may choose. */
struct EventFields {
    std::uint8_t source = 18;
    std::uint16_t eventId = 300;
    std::uint16_t length = 40; ///< of the data
    std::uint32_t sequenceId = 0;
    std::uint32_t instance = 0;
    std::uint8_t version = 1;
    bool ours = true; ///< of this blade
    char fill = 'e';  ///< the data
};

/** An event as it stands behind a record's first 8 bytes, and in messages. */
Bytes eventBody(const EventFields& fields);

/** A whole stored record with the right checksum: of the header alone for a dummy entry. */
Bytes record(const EventFields& fields);

/** The dummy entry; @p length may be 65,535. */
Bytes dummyEntry(std::uint16_t length);

/** A local message to the event manager: header and body. The stated length is the real one. */
Bytes localMessage(std::uint8_t type, const Bytes& body, std::uint8_t requestor = 28,
                   std::uint32_t handle = 0, std::uint8_t cont = 0);

/** A message of the archiver, a successful response. */
Bytes archiverMessage(std::uint8_t type, const Bytes& body, std::uint32_t handle,
                      std::uint32_t returnCode = 1);

/** An inquiry's body. */
Bytes inquiryBody(std::uint32_t type, std::uint32_t sequenceId, std::uint32_t instance,
                  unsigned whose);

void append(Bytes& to, std::span<const std::uint8_t> more);

/** Logs to begin with. */
enum class Log { NONE, EMPTY, ZEROS, SHORT, NEARLY_FULL, WRAPPED, FULL, FOREIGN, KINDS };
const Bytes& logOf(Log kind);

} // namespace fuzz

#endif
