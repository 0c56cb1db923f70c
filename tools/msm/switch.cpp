#include "switch.h"

#include "common/say.h"
#include "trace.h"

#include <bit>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

namespace msm {

using tools::say;

namespace {

constexpr std::chrono::milliseconds ACCEPT_PAUSE{100};

gid_t groupId(const std::string& name) {
    const struct group* entry = getgrnam(name.c_str());
    if (entry == nullptr) {
        throw DirectoryError("there is no group " + name);
    }
    return entry->gr_gid;
}

std::string unconnectedText(U64_t endpoints) {
    U32be_t bitmap[2] = {static_cast<U32_t>(endpoints), static_cast<U32_t>(endpoints >> 32)};
    return recipientsText(bitmap);
}

} // namespace

Switch::Switch(asio::io_context& loop, SwitchOptions options)
    : loop_(loop), options_(std::move(options)), claim_(options_.directory),
      hold_(loop, std::chrono::seconds(options_.hold),
            [this](Connection& from) { waitedForManager(from); }),
      linkHold_(loop, std::chrono::seconds(options_.hold), [this](Connection& from) {
          closeHeld(from, "the other blade's event manager, which takes nothing");
      }) {
    // Sockets get their mode when they are bound, and are connected to from then on at the latest.
    umask(options_.group.empty() ? 0177 : 0117);
    std::string ownLink = options_.directory + "/" + LINK_SOCKET_NAME;
    if (usesLink()) {
        checkSocketPath(options_.link);
        if (std::filesystem::weakly_canonical(options_.link) ==
            std::filesystem::weakly_canonical(ownLink)) {
            throw DirectoryError("cannot link to itself: " + options_.link);
        }
    }
    for (U32_t endpoint = 0; endpoint < tools::ENDPOINT_COUNT; ++endpoint) {
        listen(endpoint, tools::endpointSocketPath(options_.directory, endpoint));
    }
    if (usesLink()) {
        listen(LINK_PORT, ownLink);
        link_.emplace(loop_, options_.link, options_.queueMax, [this] { linkProgressed(); });
    }
}

Switch::Port::~Port() {
    if (acceptor.is_open()) {
        unlink(path.c_str());
    }
}

void Switch::listen(U32_t number, const std::string& path) {
    removeStaleSocket(path);
    Port& port = ports_.at(number).emplace(loop_, path);
    std::error_code error;
    asio::local::stream_protocol::endpoint address(path);
    Acceptor acceptor(loop_);
    acceptor.open(address.protocol(), error);
    if (!error) {
        acceptor.bind(address, error);
    }
    if (error) {
        throw DirectoryError("cannot listen on " + path + ": " + error.message());
    }
    // From here on the socket in the directory is ours to remove.
    port.acceptor = std::move(acceptor);
    openTo(path);
    port.acceptor.listen(asio::socket_base::max_listen_connections, error);
    if (error) {
        throw DirectoryError("cannot listen on " + path + ": " + error.message());
    }
    accept(number);
}

/** Gives a socket to the group that may use it, before anybody can connect. */
void Switch::openTo(const std::string& path) const {
    if (options_.group.empty()) {
        return;
    }
    if (lchown(path.c_str(), static_cast<uid_t>(-1), groupId(options_.group)) != 0) {
        throw DirectoryError("cannot give " + path + " to group " + options_.group + ": " +
                             strerror(errno));
    }
}

void Switch::accept(U32_t number) {
    Port& port = *ports_.at(number);
    port.acceptor.async_accept([this, number](std::error_code error, Socket socket) {
        if (!error) {
            accepted(number, std::move(socket));
            accept(number);
            return;
        }
        // Such as no descriptor being free: the peer waits, nothing is lost.
        Port& failed = *ports_.at(number);
        say(failed.path + ": cannot accept: " + error.message());
        failed.pause.expires_after(ACCEPT_PAUSE);
        failed.pause.async_wait([this, number](std::error_code) { accept(number); });
    });
}

void Switch::accepted(U32_t number, Socket socket) {
    bool isLink = number == LINK_PORT;
    std::string name = (isLink ? std::string(LINK_SOCKET_NAME) : tools::endpointSocketName(number));
    name.append("#").append(std::to_string(++counters_.connections));
    if (number == MANAGER && refuseSecondManager(name)) {
        return;
    }
    Connection::Callbacks callbacks;
    callbacks.message = [this, number, isLink](Connection& from, std::span<U8_t> message) {
        return isLink ? takeFromLink(from, message) : takeLocal(number, from, message);
    };
    callbacks.batch = [this] { flush(); };
    callbacks.end = [this, number](Connection& from, End end) { ended(number, from, end); };
    if (number == MANAGER) {
        callbacks.progress = [this](Connection&) { managerProgressed(); };
    }
    auto connection = std::make_shared<Connection>(std::move(socket), name, options_.queueMax,
                                                   std::move(callbacks));
    ports_.at(number)->connections.insert(connection);
    connection->start();
    if (options_.trace) {
        say(name + ": connected");
    }
    if (number == MANAGER) {
        adoptManager(std::move(connection));
    }
}

void Switch::ended(U32_t number, Connection& connection, End end) {
    counters_.badLengths += end == End::BadLength ? 1 : 0;
    counters_.brokenMessages += end == End::Broken ? 1 : 0;
    if (&connection == manager_.get()) {
        releaseManager();
    }
    size_t unsent = connection.unsent().count();
    if (number < tools::ENDPOINT_COUNT && unsent > 0) {
        counters_.endpoints.at(number).delivered -= unsent;
        counters_.endpoints.at(number).dropped += unsent;
        say(connection.name() + ": " + std::to_string(unsent) +
            " messages that waited for it are dropped");
    }
    if (options_.trace) {
        say(connection.name() + ": disconnected");
    }
    ports_.at(number)->connections.erase(connection.shared_from_this());
}

bool Switch::takeLocal(U32_t endpoint, Connection& from, std::span<U8_t> message) {
    const auto& header = *reinterpret_cast<const MMCH_t*>(message.data());
    U64_t recipients = recipientsOf(header.recipient_loc_bm);
    U64_t others = recipientsOf(header.recipient_ob_bm);
    // The event manager itself is always read, so that it and the switch cannot wait for each
    // other.
    if (endpoint != MANAGER && isForManager(recipients) && !managerHasRoom()) {
        holdForManager(from);
        return false;
    }
    if (endpoint != MANAGER && isForManager(others) && usesLink() && link_->eventsMustWait()) {
        holdForLink(from);
        return false;
    }
    ++counters_.messages;
    ++counters_.endpoints.at(endpoint).received;
    Delivery delivery;
    deliver(recipients, message, delivery);
    if (others != 0 && usesLink()) {
        sendOverLink(message, delivery);
    }
    conclude(from, header, delivery);
    return true;
}

bool Switch::takeFromLink(Connection& from, std::span<U8_t> message) {
    auto& header = *reinterpret_cast<MMCH_t*>(message.data());
    U64_t recipients = recipientsOf(header.recipient_ob_bm);
    if (isForManager(recipients) && !managerHasRoom()) {
        // For as long as it takes: the senders of the other blade are who must not wait for ever.
        heldLinks_.push_back(from.shared_from_this());
        return false;
    }
    ++counters_.linkReceived;
    header.mmsg_cont |= MMSG_E_CONT_OTHER_BLADE;
    Delivery delivery;
    deliver(recipients, message, delivery);
    conclude(from, header, delivery);
    return true;
}

void Switch::deliver(U64_t recipients, std::span<const U8_t> message, Delivery& delivery) {
    if ((recipients >> tools::ENDPOINT_COUNT) != 0) {
        ++counters_.unknownEndpoint;
    }
    recipients &= (U64_t{1} << tools::ENDPOINT_COUNT) - 1;
    for (; recipients != 0; recipients &= recipients - 1) {
        auto endpoint = static_cast<U32_t>(std::countr_zero(recipients));
        EndpointCounters& counters = counters_.endpoints.at(endpoint);
        const auto& connections = ports_.at(endpoint)->connections;
        if (endpoint == MANAGER ? !manager_ : connections.empty()) {
            ++counters.unconnected;
            delivery.unconnected |= U64_t{1} << endpoint;
        } else if (endpoint == MANAGER) {
            deliverTo(*manager_, counters, message, delivery);
        } else {
            for (const std::shared_ptr<Connection>& connection : connections) {
                deliverTo(*connection, counters, message, delivery);
            }
        }
    }
}

void Switch::deliverTo(Connection& connection, EndpointCounters& counters,
                       std::span<const U8_t> message, Delivery& delivery) {
    bool taken = connection.post(message);
    ++(taken ? counters.delivered : counters.dropped);
    ++(taken ? delivery.connections : delivery.dropped);
    if (taken && connection.unsent().count() == 1) {
        posted_.push_back(&connection);
    }
}

/** Sends what the messages of one read became, together for each connection. */
void Switch::flush() {
    for (Connection* connection : posted_) {
        connection->flush();
    }
    posted_.clear();
    if (link_) {
        link_->flush();
    }
}

void Switch::sendOverLink(std::span<const U8_t> message, Delivery& delivery) {
    delivery.otherBlade = link_->post(message);
    ++(delivery.otherBlade ? counters_.linkDelivered : counters_.linkDropped);
    delivery.dropped += delivery.otherBlade ? 0 : 1;
}

void Switch::conclude(const Connection& from, const MMCH_t& header, const Delivery& delivery) {
    if (delivery.connections == 0 && !delivery.otherBlade) {
        ++counters_.nobody;
    }
    if (!options_.trace) {
        return;
    }
    std::string text = from.name() + ": " + headerText(header) + " -> ";
    text += delivery.connections == 0 ? "nobody" : std::to_string(delivery.connections);
    text += delivery.otherBlade ? " and the other blade" : "";
    if (delivery.unconnected != 0) {
        text += ", not connected: " + unconnectedText(delivery.unconnected);
    }
    if (delivery.dropped > 0) {
        text += ", dropped for " + std::to_string(delivery.dropped);
    }
    say(text);
}

Counters Switch::counters() const {
    Counters counters = counters_;
    for (U32_t endpoint = 0; endpoint < tools::ENDPOINT_COUNT; ++endpoint) {
        for (const std::shared_ptr<Connection>& connection : ports_.at(endpoint)->connections) {
            counters.endpoints.at(endpoint).delivered -= connection->unsent().count();
            counters.endpoints.at(endpoint).dropped += connection->unsent().count();
        }
    }
    counters.endpoints.at(MANAGER).dropped += kept_.count();
    if (link_) {
        counters.linkDelivered -= link_->unsent();
        counters.linkDropped += link_->unsent();
    }
    return counters;
}

} // namespace msm
