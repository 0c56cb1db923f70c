/**
 * @file
 * Figures of a running archiver, for Prometheus.
 */
#ifndef EVARCHIVER_METRICS_H
#define EVARCHIVER_METRICS_H

#include "server.h"

#include <memory>

namespace evarchive {

/** Serves /metrics, and /ready for who distributes blades, from threads of its own, as long as it
 * lives. */
class Metrics {
  public:
    /**
     * @param state    asked for at each scrape, from any thread
     * @param database the archive; the room on its file system is told
     * Throws std::runtime_error when the place cannot be listened on.
     */
    Metrics(const asio::ip::tcp::endpoint& place, std::function<ServerState()> state,
            const std::string& database);
    ~Metrics();
    Metrics(const Metrics&) = delete;
    Metrics& operator=(const Metrics&) = delete;

  private:
    struct Parts; // keeps the library's headers out of this one
    std::unique_ptr<Parts> parts_;
};

} // namespace evarchive

#endif
