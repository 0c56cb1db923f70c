/**
 * @file
 * The server: takes connections, lets links settle and the archive commit, prints progress.
 */
#ifndef EVARCHIVER_SERVER_H
#define EVARCHIVER_SERVER_H

#include "link.h"

#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <set>

namespace evarchive {

/** One process's server. */
class Server {
  public:
    /** Binds; throws std::system_error when it cannot. */
    Server(const Options& options, Archive& archive, Say say);

    /** Serves until SIGINT or SIGTERM; then everything received is filed and committed. Throws
     * StoreError when the storage fails. */
    void run();

    const SessionCounts& counts() const { return counts_; }

  private:
    void listen();
    void accept();
    void acceptLater();
    void accepted(asio::ip::tcp::socket socket);
    void armSettling();
    void settle();
    void armProgress();
    void stop();

    const Options& options_;
    Archive& archive_;
    Say say_;
    SessionCounts counts_;
    asio::io_context context_{1};
    asio::ip::tcp::acceptor acceptor_{context_};
    asio::signal_set signals_{context_, SIGINT, SIGTERM};
    asio::steady_timer settling_{context_};
    asio::steady_timer progress_{context_};
    asio::steady_timer acceptPause_{context_};
    std::set<std::shared_ptr<Link>> links_;
    bool isSettling_ = false;
    std::string lastProgress_;
};

/** The counts as one line. */
std::string progressLine(const ArchiveCounts& archive, const SessionCounts& sessions);

} // namespace evarchive

#endif
