#include "peer_watch.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace evarchive {

void watchPeer(int descriptor) {
    const int one = 1;
    const int idle = 60;
    const int interval = 10;
    const int count = 3;
    const unsigned unanswered = 90'000;
    // A socket that is gone shows at its first read.
    setsockopt(descriptor, SOL_SOCKET, SO_KEEPALIVE, &one, sizeof(one));
    setsockopt(descriptor, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof(idle));
    setsockopt(descriptor, IPPROTO_TCP, TCP_KEEPINTVL, &interval, sizeof(interval));
    setsockopt(descriptor, IPPROTO_TCP, TCP_KEEPCNT, &count, sizeof(count));
    setsockopt(descriptor, IPPROTO_TCP, TCP_USER_TIMEOUT, &unanswered, sizeof(unanswered));
}

} // namespace evarchive
