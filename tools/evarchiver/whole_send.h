/**
 * @file
 * Sending a message whole or not at all.
 *
 * A blade reads a header and then its body with one receive each; a body that has not arrived whole
 * ends its event manager. So a response never leaves in two sends.
 */
#ifndef EVARCHIVER_WHOLE_SEND_H
#define EVARCHIVER_WHOLE_SEND_H

#include "protocol.h"

namespace evarchive {

/** Send buffer that a link is given, bytes. The system calls a socket writable while at least a
 * third of it is free: enough for the largest response, whatever its own overhead is. */
constexpr int SEND_BUFFER = 256 * 1024;

/** What became of a message. */
enum class Sent {
    WHOLE,  ///< all of it is with the system
    LATER,  ///< nothing of it went out: there is no room now
    BROKEN, ///< the link has failed, or took a part: it must be closed at once
};

/** Sends a message with one send, when there is room for all of it. Never blocks. @p descriptor is
 * a stream socket whose send buffer is SEND_BUFFER. */
Sent sendWhole(int descriptor, View message);

} // namespace evarchive

#endif
