/**
 * @file
 * An archiver that the test plays: a listening TCP socket and the connections that come in.
 */
#ifndef SCRIPTED_ARCHIVER_H
#define SCRIPTED_ARCHIVER_H

#include "link_messages.h"

namespace support {

/** One connection, seen from the archiver. Everything throws at the deadline. */
class ArchiverEnd {
  public:
    explicit ArchiverEnd(int descriptor) : descriptor_(descriptor) {}
    ~ArchiverEnd();
    ArchiverEnd(ArchiverEnd&& other) noexcept;
    ArchiverEnd& operator=(ArchiverEnd&&) = delete;

    /** Exactly @p count bytes. */
    Bytes receive(size_t count);

    /** Sends all bytes with one call, so that the other side finds them together. */
    void send(const Bytes& bytes);

    /** Waits until the other side's system has all that was sent. */
    void waitUntilDelivered();

    /** @return whether nothing is there to be received, the end of the connection included */
    bool isQuiet();

    /** Waits for the other side's end. @return false when bytes come instead */
    bool isClosed();

  private:
    int descriptor_;
};

/** An address of the loopback network on which nobody listens, until listen(). */
class ScriptedArchiver {
  public:
    /** @param narrow connections with small segments and a small receive buffer: they are full with
     * some 10,000 bytes on their way, where others take millions */
    explicit ScriptedArchiver(bool narrow = false);
    ~ScriptedArchiver();
    ScriptedArchiver(const ScriptedArchiver&) = delete;
    ScriptedArchiver& operator=(const ScriptedArchiver&) = delete;

    U16_t port() const { return port_; }
    void listen();
    ArchiverEnd accept();

  private:
    int descriptor_;
    U16_t port_;
};

} // namespace support

#endif
