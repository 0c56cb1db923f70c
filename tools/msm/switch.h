/**
 * @file
 * The message switch: sockets of all endpoints, routing by the recipient bitmaps.
 */
#ifndef MSM_SWITCH_H
#define MSM_SWITCH_H

#include "common/message_connection.h"
#include "counters.h"
#include "directory.h"
#include "hold.h"
#include "link.h"

#include <array>
#include <optional>
#include <set>
#include <vector>

namespace msm {

struct SwitchOptions {
    std::string directory;  ///< where the sockets are
    std::string link;       ///< link socket of the other blade's switch; empty: no other blade
    std::string group;      ///< that may use the sockets, too; empty: only their owner
    size_t queueMax = 8192; ///< messages that may wait for one connection
    int hold = 30;          ///< seconds that a sender may wait for the event manager
    bool trace = false;     ///< say every message
    int readyFd = -1;       ///< descriptor that is told when all sockets listen; -1: none
};

using tools::OutQueue;

class Switch {
  public:
    /** Listens. Throws DirectoryError when it cannot. */
    Switch(asio::io_context& loop, SwitchOptions options);

    /** Removes the sockets. */
    ~Switch() = default;
    Switch(const Switch&) = delete;
    Switch& operator=(const Switch&) = delete;

    /** What was counted up to now; messages that still wait count as dropped. */
    Counters counters() const;

  private:
    using Acceptor = asio::local::stream_protocol::acceptor;

    /** A listening socket: an endpoint's, or behind them the link's. Removes its socket. */
    struct Port {
        Port(asio::io_context& loop, std::string socketPath)
            : path(std::move(socketPath)), acceptor(loop), pause(loop) {}
        ~Port();
        Port(const Port&) = delete;
        Port& operator=(const Port&) = delete;
        std::string path;
        Acceptor acceptor;
        asio::steady_timer pause; ///< after a failed accept
        std::set<std::shared_ptr<Connection>> connections;
    };
    static constexpr U32_t LINK_PORT = tools::ENDPOINT_COUNT;
    static constexpr U32_t MANAGER = MMSG_E_EPID_EVENTLOGMP; ///< port of the event manager

    /** Where one message went. */
    struct Delivery {
        size_t connections = 0;  ///< that took it
        size_t dropped = 0;      ///< that could not
        U64_t unconnected = 0;   ///< endpoints without a connection, as bits
        bool otherBlade = false; ///< the link took it
    };

    void listen(U32_t number, const std::string& path);
    void accept(U32_t number);
    void accepted(U32_t number, Socket socket);
    void ended(U32_t number, Connection& connection, End end);
    bool refuseSecondManager(const std::string& name);
    void adoptManager(std::shared_ptr<Connection> connection);
    void releaseManager();
    bool takeLocal(U32_t endpoint, Connection& from, std::span<U8_t> message);
    bool takeFromLink(Connection& from, std::span<U8_t> message);
    bool managerHasRoom() const { return manager_ && manager_->hasRoom(); }
    void holdForManager(Connection& from);
    void holdForLink(Connection& from);
    void managerProgressed();
    void linkProgressed();
    void waitedForManager(Connection& from);
    void closeHeld(Connection& from, const std::string& waitedFor);
    void deliver(U64_t recipients, std::span<const U8_t> message, Delivery& delivery);
    void deliverTo(Connection& connection, EndpointCounters& counters,
                   std::span<const U8_t> message, Delivery& delivery);
    void flush();
    void sendOverLink(std::span<const U8_t> message, Delivery& delivery);
    void openTo(const std::string& path) const;
    void conclude(const Connection& from, const MMCH_t& header, const Delivery& delivery);
    bool usesLink() const { return !options_.link.empty(); }

    asio::io_context& loop_;
    SwitchOptions options_;
    DirectoryClaim claim_;
    Counters counters_;
    std::array<std::optional<Port>, LINK_PORT + 1> ports_;
    std::optional<Link> link_;
    std::vector<Connection*> posted_;     ///< connections that flush() has to do with
    std::shared_ptr<Connection> manager_; ///< the event manager, while it is connected
    OutQueue kept_;                       ///< what an event manager that died had not taken
    Hold hold_;                           ///< who waits for the event manager
    Hold linkHold_;                       ///< who waits for the other blade's
    std::vector<std::shared_ptr<Connection>> heldLinks_; ///< what the other blade's switch waits on
};

} // namespace msm

#endif
