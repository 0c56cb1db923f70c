/**
 * @file
 * The server: one loop that takes connections, reads and answers, and never waits for the archive.
 */
#ifndef EVARCHIVER_SERVER_H
#define EVARCHIVER_SERVER_H

#include "acceptor.h"
#include "lanes.h"
#include "link.h"

#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <functional>
#include <unordered_map>

namespace evarchive {

/** How a server ended. */
struct ServerEnd {
    int signal = 0;      ///< the one that ended it; 0: the archive failed
    bool isSafe = false; ///< whether all that links brought is
    std::string failure; ///< of the archive
};

/** What is known of a running server; any thread may ask. */
struct ServerState {
    U64_t links = 0;
    LinkCounts counts;
    LaneState lane;
    std::size_t unsent = 0; ///< bytes of answers that wait
    /** Why a blade had better go to another archiver; empty: it had not. */
    std::string notReady = "it has just been started";
};

/** One process's server. */
class Server : private LinkHost {
  public:
    /** Takes its address; throws std::system_error when it cannot. Nothing listens there yet. */
    Server(const Options& options, Say say);

    /** Opens the archive and serves it until SIGINT or SIGTERM; then everything received is filed.
     * A database server that is away is waited for first. Throws StoreError. */
    ServerEnd run(const std::function<Engine()>& engine);

    /** Of the last second. */
    ServerState state();

    /** Only after run(). */
    U64_t countGaps() { return lanes_ ? lanes_->countGaps() : 0; }

  private:
    // Of a link.
    const Options& options() const override { return options_; }
    LinkCounts& counts() override { return counts_; }
    void say(Level level, const std::string& line) override { say_(level, line); }
    std::span<U8_t> receiveBuffer() override { return buffer_; }
    bool hasRoom(const Link& link) override;
    void submit(const Link& link, Batch::Kind kind, View body, U32_t ticket) override;
    void speaks(Link& link, const BladeKey& blade) override;
    void unsettled(Link& link) override;
    bool addUnsent(std::ptrdiff_t bytes) override;
    void closed(Link& link) override;

    void open(const Engine& engine);
    bool awaitArchive(const std::function<Engine()>& engine);
    void noteAway(const std::string& why);

    // Of the lanes, from their threads.
    void deliver(std::vector<Reply> replies);
    void laneFailed(const std::string& why);

    std::optional<std::string> whyNot() const;
    std::string whyNotReady(const LaneState& lane) const;
    void take(asio::ip::tcp::socket socket, const asio::ip::tcp::endpoint& peer);
    void handOver();
    void armHandOver();
    void armSettling();
    void settle();
    void armSecond();
    void everySecond();
    void sayProgress();
    void beginStop(int signal);
    void finishStop();
    void endAllLinks();

    const Options& options_;
    Say say_;
    LinkCounts counts_;
    std::array<U8_t, 65'536> buffer_{};
    asio::io_context context_{1};
    asio::signal_set signals_{context_, SIGINT, SIGTERM};
    asio::steady_timer handOverTimer_{context_};
    asio::steady_timer settling_{context_};
    asio::steady_timer second_{context_};
    asio::steady_timer stopTimer_{context_};
    Acceptor acceptor_;
    std::unordered_map<LinkNumber, std::shared_ptr<Link>> links_;
    std::map<BladeKey, LinkNumber> blades_; ///< on which link each one speaks
    std::vector<LinkNumber> unsettled_;
    LinkNumber lastNumber_ = 0;
    std::size_t unsent_ = 0;
    bool isHandOverPosted_ = false;
    bool isHandOverTimed_ = false;
    bool isSettling_ = false;
    bool isStopping_ = false;
    U64_t secondsPassed_ = 0;
    std::string lastProgress_;
    ServerEnd end_;
    std::mutex stateMutex_;
    ServerState state_;
    std::optional<Lanes> lanes_; ///< none until the archive is there; last: their threads call back
};

/** The counts as one line. */
std::string progressLine(const ArchiveCounts& archive, const SessionCounts& sessions);

} // namespace evarchive

#endif
