/**
 * @file
 * An endpoint of the message switch, as a test plays it.
 */
#ifndef TEST_MMSG_CLIENT_H
#define TEST_MMSG_CLIENT_H

#include "mmsg.h"
#include "wait.h"

#include <string>
#include <vector>

namespace support {

using Bytes = std::vector<U8_t>;

/** What a test says of a message; the rest of its header is zero, mmsg_length is computed. */
struct MmsgFields {
    U8_t protocol = MMSG_E_PROTOCOL_EVENTMGR;
    U32_t type = 0;
    U8_t requestor = MMSG_E_EPID_STARTUPMP;
    U8_t cont = 0;
    U8_t dest = 0;
    std::vector<U32_t> local = {}; ///< endpoints in recipient_loc_bm
    std::vector<U32_t> other = {}; ///< endpoints in recipient_ob_bm
    U32_t returnCode = 0;
    U32_t handle = 0;
};

/** A whole message: a header with message_type 14 and mmch_version 1, then the body. */
Bytes makeMmsg(const MmsgFields& fields, const Bytes& body = {});

/** The header of a message of at least 64 bytes; throws for a shorter one. */
MMCH_t& headerOf(Bytes& message);
const MMCH_t& headerOf(const Bytes& message);

/** One connection to a Unix stream socket that carries whole MMSG. */
class MmsgClient {
  public:
    /** Connects, trying again while nobody listens on @p path; throws at the deadline. */
    explicit MmsgClient(const std::string& path);

    /** Takes over a connected socket. */
    explicit MmsgClient(int descriptor) : descriptor_(descriptor) {}
    ~MmsgClient();
    MmsgClient(MmsgClient&& other) noexcept;
    MmsgClient& operator=(MmsgClient&&) = delete;

    int descriptor() const { return descriptor_; }

    /** Sends all bytes with one call; throws when they do not go out whole. */
    void send(const Bytes& bytes);

    /** Receives one whole message. Throws at the deadline, and on end of stream. */
    Bytes receive();

    /** What one recv() of 4096 bytes gives once something is there; empty: end of stream. */
    Bytes receivePiece();

    /** Waits until the other side has closed the connection; throws at the deadline, and when data
     * comes instead. */
    void waitForEnd();

    /** Ends this side's stream, or all of the connection. */
    void finishSending();
    void close();

  private:
    void receiveExactly(U8_t* destination, size_t length);

    int descriptor_ = -1;
};

/** A listening Unix stream socket: a message switch, as a test plays it. */
class MmsgListener {
  public:
    explicit MmsgListener(const std::string& path);
    ~MmsgListener();
    MmsgListener(const MmsgListener&) = delete;
    MmsgListener& operator=(const MmsgListener&) = delete;

    /** Accepts the next connection; throws at the deadline. */
    MmsgClient accept();

  private:
    int descriptor_;
};

} // namespace support

#endif
