/**
 * @file
 * A connection to the message switch as one of the blade's endpoints.
 */
#ifndef EVCTL_SESSION_H
#define EVCTL_SESSION_H

#include "emp_mesgs.h"
#include "mmsg.h"

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace evctl {

using Bytes = std::vector<U8_t>;
using Clock = std::chrono::steady_clock;

/** When to stop waiting; nothing: never. */
using Deadline = std::optional<Clock::time_point>;

/** The switch cannot be reached, has gone, or does not speak its protocol. */
class SessionError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/** Nobody reads what is printed any more. */
class ReaderGone : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/** The header of a message of at least 64 bytes. */
inline MMCH_t& mmchOf(Bytes& message) {
    return *reinterpret_cast<MMCH_t*>(message.data());
}
inline const MMCH_t& mmchOf(const Bytes& message) {
    return *reinterpret_cast<const MMCH_t*>(message.data());
}

/**
 * A message to the event manager with a header from scratch: version 1, protocol 8, recipient bit
 * 27, every other field 0 but those given.
 * @param requestor the sender's endpoint
 * @param bodyLength bytes behind the header, zeroed; header and body are at most 65,535 bytes
 */
Bytes makeMessage(EMP_MESGS_TYPE_e type, U32_t requestor, size_t bodyLength);

/** One endpoint's socket. What arrives is kept, in order, until it is received. Whatever waits ends
 * with Stopped when there is a Stop and its signal comes. */
class Session {
  public:
    /** Connects to @p endpoint's socket in @p directory. Throws SessionError. */
    Session(const std::string& directory, U32_t endpoint);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /** Sends a whole message, taking in meanwhile what arrives, so that neither side stalls. Throws
     * SessionError. */
    void send(const Bytes& message);

    /** The next whole message; nothing at the deadline. Throws SessionError, also when the switch
     * closes the connection. */
    std::optional<Bytes> receive(Deadline deadline);

    /**
     * Sends a request and waits for its reply: the response with its opcode and a handle of its
     * own. Other messages are dropped.
     * @return the reply; nothing after @p timeout. Throws SessionError.
     */
    std::optional<Bytes> request(Bytes message, std::chrono::milliseconds timeout);

    /** Takes in what has arrived without waiting, to be received later. Throws SessionError. */
    void takeInArrived();

    /** From now on a wait ends with ReaderGone when @p descriptor, to which what comes is written,
     * is hung up. */
    void watchReader(int descriptor) { reader_ = descriptor; }

    /** Waits until @p when, dropping what arrives: for senders that expect nothing. */
    void idleUntil(Clock::time_point when);

  private:
    bool waitFor(short events, Deadline deadline, short* ready);
    void takeIn();
    std::optional<Bytes> nextWhole();

    int descriptor_ = -1;
    int reader_ = -1;
    Bytes input_;      // what has arrived
    size_t taken_ = 0; // bytes of it that have been received
    U32_t nextHandle_;
};

} // namespace evctl

#endif
