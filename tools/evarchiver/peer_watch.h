/**
 * @file
 * Notices a peer that is gone without a word.
 */
#ifndef EVARCHIVER_PEER_WATCH_H
#define EVARCHIVER_PEER_WATCH_H

namespace evarchive {

/** After 60 s of silence the peer of a TCP connection is asked, and unanswered bytes or questions
 * end the connection after 90 s at most. */
void watchPeer(int descriptor);

} // namespace evarchive

#endif
