/**
 * @file
 * The blade's side of the archiver link, and a running archiver.
 */
#ifndef BLADE_LINK_H
#define BLADE_LINK_H

#include "link_messages.h"
#include "process.h"
#include "temp_directory.h"

#include <gtest/gtest.h>

#include <memory>

namespace support {

/** A TCP connection to an archiver. Everything throws at the deadline. */
class BladeLink {
  public:
    /** @param sendBuffer    SO_SNDBUF in bytes; 0: the system's choice
     * @param receiveBuffer SO_RCVBUF likewise */
    explicit BladeLink(U16_t port, int sendBuffer = 0, const std::string& host = "127.0.0.1",
                       int receiveBuffer = 0);
    ~BladeLink();
    BladeLink(const BladeLink&) = delete;
    BladeLink& operator=(const BladeLink&) = delete;

    void send(const Bytes& bytes);

    /** Sends as much as the connection takes while nobody reads. @return bytes sent */
    size_t sendUntilFull();

    /** Ends this side's stream. */
    void finishSending();

    /** Receives a response as an event manager does: once the header is there, one receive for all
     * of it. Throws when that is not whole. */
    Bytes receive();

    /** The same with as many receives as it takes. */
    Bytes receivePatiently();

    /** send() and receive(). */
    Bytes ask(const Bytes& request);

    /** @return whether the other side has closed, without a further response */
    bool isClosed();

    /** The same, in order: what the other side had sent before has come, and nothing that it was
     * sent has been refused. */
    bool isClosedInOrder();

    /** Its end of the connection. */
    U16_t port() const;

    /** @return whether nothing is there to be received */
    bool isQuiet();

  private:
    int descriptor_;
};

/** A claim: what a status answer says. */
struct Claim {
    U32_t last;
    U32_t flag;

    bool operator==(const Claim&) const = default;
};

/** The last id and the flag of a status answer. */
Claim claimOf(const Bytes& answer);

/** A port of the loopback for what listens with SO_REUSEADDR. Until the test's process ends the
 * system gives it to nobody who asks for any port, nor to a connection. */
U16_t freePort();

/** What a scrape of an archiver's figures gets. */
std::string scrape(U16_t port, const std::string& path = "/metrics");

/** Tests of the archiver as a process. */
class ArchiverProcessTest : public testing::Test {
  protected:
    /** Starts the archiver, waits until it listens. */
    void start(const std::vector<std::string>& arguments = {});

    /** SIGINT, and the end. */
    Ending stop();

    /** An event as events() sends it. */
    static EventFields event(U32_t id, const LogName& log = {});

    /** The messages of the events first to last. */
    static Bytes events(U32_t first, U32_t last, const LogName& log = {});

    /** The status request of a blade whose oldest event is this one. */
    static Bytes statusOf(const EventFields& oldest, U32_t handle = 1000);

    /** What the archiver claims to hold of a log, asked on this link. */
    static Claim claim(BladeLink& link, const EventFields& oldest);

    TempDirectory directory_;
    std::string database_ = directory_.file("events.db");
    std::unique_ptr<Process> archiver_;
    U16_t port_ = 0;
    int starts_ = 0;
};

} // namespace support

#endif
