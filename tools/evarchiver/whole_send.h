/**
 * @file
 * Sending a message whole or not at all.
 *
 * A blade reads a header and then its body with one receive each; a body that has not arrived whole
 * ends its event manager. So a response leaves with one send, in one TCP segment, and alone: no
 * further one goes out while a part of an earlier one may still be under way, because what is lost
 * is sent again in whatever pieces suit TCP then.
 */
#ifndef EVARCHIVER_WHOLE_SEND_H
#define EVARCHIVER_WHOLE_SEND_H

#include "protocol.h"

namespace evarchive {

/** Send buffer that a link is given, bytes. The system calls a socket writable while at least a
 * third of it is free: enough for the largest response, whatever its own overhead is. */
constexpr int SEND_BUFFER = 256 * 1024;

/** Sets a connection up: its messages leave at once, and a router on the way may cut a packet that
 * is too large for the next network, so that TCP never has to send it again in smaller ones. */
void setUpWholeSending(int descriptor);

/** The longest message that leaves this connection in one segment now; without a bound where there
 * are no segments. */
std::size_t longestWhole(int descriptor);

/** What became of a message. */
enum class Sent : U8_t {
    WHOLE,  ///< all of it is with the system
    LATER,  ///< nothing of it went out: there is no room now, or an earlier one is under way
    BROKEN, ///< the link has failed, or took a part: it must be closed at once
};

/** Sends a message with one send, when there is room for all of it here and at the peer. Never
 * blocks. @p descriptor is a stream socket whose send buffer is SEND_BUFFER. */
Sent sendWhole(int descriptor, View message);

} // namespace evarchive

#endif
