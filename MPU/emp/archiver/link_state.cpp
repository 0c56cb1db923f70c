#include "archiver/link_state.h"

namespace {

constexpr int LINK_STATES = 5;

constexpr auto CONNECTED = EMP_E_ARCHIVER_SOCKET_ST_CONNECTED;
constexpr auto STATUS_SENT = EMP_E_ARCHIVER_SOCKET_ST_GET_STATUS_SENT;
constexpr auto OPEN = EMP_E_ARCHIVER_SOCKET_ST_OPEN;
constexpr auto FULL = EMP_E_ARCHIVER_SOCKET_ST_FULL;
constexpr auto CLOSE = EMP_E_ARCHIVER_SOCKET_ST_CLOSE;

/** A cell that no road leads to; the state would stay. */
constexpr EMP_ARCHIVER_SOCKET_STATE_e never(EMP_ARCHIVER_SOCKET_STATE_e state) {
    return state;
}

// KEEP: a status response opens the link in every state, asked for or not, even without a
// connection; and so does a queued message that went out whole, even before the handshake.
// clang-format off
constexpr EMP_ARCHIVER_SOCKET_STATE_e nextState[EMP_E_LINK_EVENTS][LINK_STATES] = {
    // from:               CONNECTED         STATUS_SENT         OPEN         FULL         CLOSE
    /* connect issued  */ {CONNECTED,        CONNECTED,          CONNECTED,   CONNECTED,   CONNECTED},
    /* status sent     */ {STATUS_SENT,      never(STATUS_SENT), never(OPEN), never(FULL), never(CLOSE)},
    /* status received */ {OPEN,             OPEN,               OPEN,        OPEN,        OPEN},
    /* sent in part    */ {never(CONNECTED), never(STATUS_SENT), FULL,        never(FULL), never(CLOSE)},
    /* queued one sent */ {OPEN,             OPEN,               OPEN,        OPEN,        OPEN},
    /* closed          */ {CLOSE,            CLOSE,              CLOSE,       CLOSE,       CLOSE},
};
// clang-format on

} // namespace

EMP_ARCHIVER_SOCKET_STATE_e empLinkStateAfter(EMP_LINK_EVENT_e event, U16_t state) {
    U16_t from = state >= CONNECTED && state <= CLOSE ? state : static_cast<U16_t>(CLOSE);
    return nextState[event][from - CONNECTED];
}

void empMoveLinkState(EMP_LINK_EVENT_e event) {
    empControl.evArchiverSocketState = empLinkStateAfter(event, empControl.evArchiverSocketState);
}
