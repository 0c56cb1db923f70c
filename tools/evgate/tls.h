/**
 * @file
 * TLS 1.3 with certificates on both sides, over a socket that never blocks.
 */
#ifndef EVGATE_TLS_H
#define EVGATE_TLS_H

#include "protocol.h"

#include <memory>
#include <openssl/types.h>
#include <span>
#include <string>
#include <vector>

namespace evgate {

using evarchive::Bytes;
using evarchive::View;

/** What proves who we are, and who may speak with us: PEM files. */
struct TlsFiles {
    std::string certificate; ///< ours, with what stands between it and the authority; a client
                             ///< that shows none: empty
    std::string key;         ///< of it; without a passphrase
    std::string ca;          ///< authorities whose certificates are believed
};

/** Which end of the handshake. */
enum class TlsSide : U8_t { CLIENT, SERVER };

/** The files, read. A stream keeps what it was made with. */
class TlsContext {
  public:
    /** Throws std::runtime_error, saying which file cannot be used and why. */
    TlsContext(TlsSide side, const TlsFiles& files);

    TlsSide side() const { return side_; }
    SSL_CTX* get() const { return context_.get(); }

    /** Days until our certificate, which there is, is no longer valid; negative: it is not. */
    int daysLeft() const;

  private:
    struct Free {
        void operator()(SSL_CTX* context) const;
    };

    TlsSide side_;
    std::unique_ptr<SSL_CTX, Free> context_;
};

/** How a step went. */
enum class Step : U8_t {
    DONE,
    READABLE, ///< again when the socket is readable
    WRITABLE, ///< again when the socket is writable
    END,      ///< the peer has ended its stream, in order
    FAILED,   ///< the link is no more: cut, or not what it should be
};

/** One link. */
class TlsStream {
  public:
    /**
     * @param descriptor a connected socket that does not block; not owned
     * @param peerName   the name or IP address that the peer's certificate must be for; empty: any
     */
    TlsStream(const TlsContext& context, int descriptor, const std::string& peerName);

    Step handshake();

    /** @param size set for DONE: bytes read, at least one */
    Step read(std::span<U8_t> space, std::size_t& size);

    /** @param size set for DONE: bytes taken, perhaps not all. Again with the same ones at least.
     */
    Step write(View bytes, std::size_t& size);

    /** Says to the peer that nothing more comes from here. */
    Step finish();

    /** What is in the way, after FAILED. */
    const std::string& failure() const { return failure_; }

    /** The names in the peer's certificate: "DNS:...", "URI:..." and, last, "CN:...". */
    std::vector<std::string> peerNames() const;

    /** Judges the peer's certificate again, now and by files that were read since. @return what
     * speaks against it; empty: nothing */
    std::string objection(const TlsContext& context) const;

    /** The last second at which the peer's certificate, and all that it rests on, is valid; seconds
     * since 1970-01-01 UTC. After the handshake. */
    S64_t validUntil() const;

  private:
    struct Free {
        void operator()(SSL* stream) const;
    };

    Step stepOf(int result);

    std::unique_ptr<SSL, Free> stream_;
    std::string failure_;
};

} // namespace evgate

#endif
