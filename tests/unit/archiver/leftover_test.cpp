// What a lost link leaves on the forward list, and how it looks on the next one.
#include "archiver/connection.h"
#include "archiver/forward.h"
#include "archiver/forward_list.h"
#include "archiver/handshake.h"
#include "archiver/new_event.h"
#include "archiver/reconnect.h"
#include "archiver/response_timer.h"
#include "link_bench.h"

#include <arpa/inet.h>

namespace {

using testing::ElementsAre;
using testing::SizeIs;

class Leftover : public LinkTest {
  protected:
    Leftover() {
        storeRange(3, 8);
        setLink(EMP_E_ARCHIVER_SOCKET_ST_OPEN);
        empControl.socketAddressEventArchiver.sin_addr.s_addr = htonl(0x0A000001);
        empControl.socketAddressEventArchiver.sin_port = htons(5000);
    }

    /** Event 7 fails after @p taken bytes, and so does the link. */
    static void loseLinkAfter(ssize_t taken) {
        bench.archiverTakes = {taken};
        empSendEventLogToEventArchiver(7);
        empControl.empEventArchiverSequenceId = 7;
        empCloseEventArchiverConnection();
        empControl.reconnectTimeout = {0, 0};
        empProcessReconnectTimeout();
        empSendGetEventArchiverStatusMsg();
    }

    static Bytes restOf(const Bytes& message, size_t from) {
        return slice(message, from, message.size());
    }

    static void fireForwardTimer() {
        empControl.forwardTimeout = {0, 0};
        empProcessForwardTimeout();
    }

    /** An event that has just been stored. */
    static void arrive(U32_t id) {
        empForwardNewEvent(id, {"direct %d\n", "ahead %d %d\n", "not open\n"});
    }

    const Bytes message = archiverEvent(7, dataOf(7));
};

TEST_F(Leftover, RestOfTheMessageComesBehindTheNextStatusRequest) {
    loseLinkAfter(100);
    fireForwardTimer();
    EXPECT_THAT(sentTo(NEW_SOCKET), ElementsAre(SizeIs(196), restOf(message, 100)));
}

TEST_F(Leftover, RestOfTheMessageOpensTheLinkAndTheNextEventGoesBeforeTheAnswer) {
    loseLinkAfter(100);
    fireForwardTimer();
    EXPECT_EQ(empControl.evArchiverSocketState, EMP_E_ARCHIVER_SOCKET_ST_OPEN);
    store(8, 5 * 200, dataOf(8));
    empControl.empSequenceId = 9;
    arrive(8);
    EXPECT_THAT(sentTo(NEW_SOCKET),
                ElementsAre(SizeIs(196), restOf(message, 100), archiverEvent(8, dataOf(8))));
}

TEST_F(Leftover, NewEventsGoBetweenTheEntriesOfTheList) {
    loseLinkAfter(100);
    bench.archiverTakes = {50};
    empControl.evArchiverSocketState = EMP_E_ARCHIVER_SOCKET_ST_OPEN; // the answer has come
    empSendEventLogToEventArchiver(6);
    ASSERT_THAT(listed(&EvMsgRecordForwardList), SizeIs(2));
    fireForwardTimer(); // event 6, the head
    empProcessResponseTimeout();
    store(8, 5 * 200, dataOf(8));
    empControl.empSequenceId = 9;
    arrive(8);
    fireForwardTimer();
    const Bytes before = archiverEvent(6, dataOf(6));
    EXPECT_THAT(sentTo(NEW_SOCKET), ElementsAre(SizeIs(196), before, restOf(before, 50),
                                                archiverEvent(8, dataOf(8)), restOf(message, 100)));
}

} // namespace
