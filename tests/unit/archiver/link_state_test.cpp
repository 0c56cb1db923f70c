#include "archiver/link_state.h"

#include <gtest/gtest.h>

namespace {

constexpr U16_t states[] = {1, 2, 3, 4, 5};

TEST(LinkState, ConnectIssuedLeadsToConnectedFromEverywhere) {
    for (U16_t state : states) {
        EXPECT_EQ(empLinkStateAfter(EMP_E_LINK_CONNECT_ISSUED, state), 1);
    }
}

TEST(LinkState, StatusSentMovesOnlyConnected) {
    EXPECT_EQ(empLinkStateAfter(EMP_E_LINK_STATUS_SENT, 1), 2);
    for (int state : {2, 3, 4, 5}) {
        EXPECT_EQ(empLinkStateAfter(EMP_E_LINK_STATUS_SENT, static_cast<U16_t>(state)), state);
    }
}

TEST(LinkState, StatusReceivedOpensFromEverywhereEvenClosed) {
    for (U16_t state : states) {
        EXPECT_EQ(empLinkStateAfter(EMP_E_LINK_STATUS_RECEIVED, state), 3);
    }
}

TEST(LinkState, EventSentInPartFillsOnlyAnOpenLink) {
    EXPECT_EQ(empLinkStateAfter(EMP_E_LINK_EVENT_SENT_IN_PART, 3), 4);
    for (int state : {1, 2, 4, 5}) {
        EXPECT_EQ(empLinkStateAfter(EMP_E_LINK_EVENT_SENT_IN_PART, static_cast<U16_t>(state)),
                  state);
    }
}

TEST(LinkState, QueuedMessageSentOpensFromEverywhereEvenBeforeTheHandshake) {
    for (U16_t state : states) {
        EXPECT_EQ(empLinkStateAfter(EMP_E_LINK_QUEUED_MESSAGE_SENT, state), 3);
    }
}

TEST(LinkState, ClosedFromEverywhere) {
    for (U16_t state : states) {
        EXPECT_EQ(empLinkStateAfter(EMP_E_LINK_CLOSED, state), 5);
    }
}

TEST(LinkState, NumbersThatAreNoStateCountAsClose) {
    for (U16_t state : {U16_t{0}, U16_t{6}, U16_t{65535}}) {
        EXPECT_EQ(empLinkStateAfter(EMP_E_LINK_STATUS_SENT, state), 5);
        EXPECT_EQ(empLinkStateAfter(EMP_E_LINK_CONNECT_ISSUED, state), 1);
    }
}

TEST(LinkState, MovesTheControlBlock) {
    empControl.evArchiverSocketState = EMP_E_ARCHIVER_SOCKET_ST_OPEN;
    empMoveLinkState(EMP_E_LINK_EVENT_SENT_IN_PART);
    EXPECT_EQ(empControl.evArchiverSocketState, EMP_E_ARCHIVER_SOCKET_ST_FULL);
}

} // namespace
