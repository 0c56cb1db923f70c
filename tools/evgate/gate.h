/**
 * @file
 * One end of the gate: takes connections, each of which becomes a link.
 */
#ifndef EVGATE_GATE_H
#define EVGATE_GATE_H

#include "acceptor.h"
#include "link.h"

#include <array>
#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <unordered_map>

namespace evgate {

/** One process's gate. */
class Gate : private LinkHost {
  public:
    /** Reads the files, binds and listens, makes the first line of output; throws when it cannot.
     */
    Gate(const Options& options, evarchive::Say say);

    /** Serves until SIGINT or SIGTERM; reads its files again on SIGHUP. */
    void run();

  private:
    // Of a link.
    const Options& options() const override { return options_; }
    GateCounts& counts() override { return counts_; }
    void say(Level level, const std::string& line) override { say_(level, line); }
    const TlsContext& tls() const override { return *tls_; }
    Rights rightsOf(const std::vector<std::string>& names) const override;
    std::span<U8_t> receiveBuffer() override { return buffer_; }
    void failed(const Link& link, const std::string& why) override;
    void closed(Link& link) override;

    void readFiles();
    void sayFiles();
    void readFilesAgain();
    void take(asio::ip::tcp::socket socket, const asio::ip::tcp::endpoint& peer);
    void awaitSignal();
    void awaitSecond();
    void everySecond();
    void beginStop();
    std::vector<std::shared_ptr<Link>> links() const;

    const Options& options_;
    evarchive::Say say_;
    GateCounts counts_;
    std::array<U8_t, 16'384> buffer_{}; ///< as much as one TLS record holds
    std::unique_ptr<TlsContext> tls_;
    CertificateMap map_;
    asio::io_context context_{1};
    asio::signal_set signals_{context_, SIGINT, SIGTERM, SIGHUP};
    asio::steady_timer second_{context_};
    asio::steady_timer stop_{context_};
    evarchive::Acceptor acceptor_;
    std::unordered_map<U64_t, std::shared_ptr<Link>> links_;
    U64_t lastNumber_ = 0;
    bool isStopping_ = false;
};

} // namespace evgate

#endif
