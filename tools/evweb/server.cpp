#include "server.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <csignal>
#include <cstring>
#include <httplib.h>
#include <list>
#include <memory>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace evweb {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::chrono::seconds IDLE{15};         // between two requests
constexpr std::chrono::seconds REQUEST_TIME{10}; // for all of a request's head
constexpr std::size_t LONGEST_REQUEST = 32'768;
constexpr unsigned MOST_REQUESTS = 1000; // of a connection
constexpr char TOO_MANY[] = "HTTP/1.1 503 Service Unavailable\r\nRetry-After: 2\r\n"
                            "Content-Length: 0\r\nConnection: close\r\n\r\n";

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what + ": " + strerror(errno));
}

/** A connection as the library reads and writes it. Every wait has an end. */
class Peer final : public httplib::Stream {
  public:
    Peer(int descriptor, std::string name, const ServerSettings& settings)
        : descriptor_(descriptor), name_(std::move(name)), sendTime_(settings.sendTime),
          end_(Clock::now() + settings.lifetime) {}

    /** Waits for the first byte of the next request. */
    bool awaitRequest() {
        left_ = LONGEST_REQUEST;
        readEnd_ = std::min(end_, Clock::now() + IDLE);
        if (!is_readable()) {
            return false;
        }
        readEnd_ = std::min(end_, Clock::now() + REQUEST_TIME);
        return true;
    }

    bool is_readable() const override { return at_ < size_ || await(POLLIN, readEnd_); }
    bool is_writable() const override {
        return await(POLLOUT, std::min(end_, Clock::now() + sendTime_));
    }
    ssize_t read(char* to, size_t size) override;
    ssize_t write(const char* from, size_t size) override;
    void get_remote_ip_and_port(std::string& ip, int& port) const override {
        ip = name_;
        port = 0;
    }
    void get_local_ip_and_port(std::string& ip, int& port) const override {
        ip.clear();
        port = 0;
    }
    socket_t socket() const override { return descriptor_; }

  private:
    bool await(short events, Clock::time_point end) const {
        pollfd entry{descriptor_, events, 0};
        const auto left = std::chrono::duration_cast<milliseconds>(end - Clock::now());
        return left.count() > 0 && poll(&entry, 1, static_cast<int>(left.count())) > 0;
    }

    int descriptor_;
    std::string name_;
    milliseconds sendTime_;
    Clock::time_point end_;
    Clock::time_point readEnd_;
    std::size_t left_ = 0; // bytes that the request may still have
    std::array<char, 4096> buffer_{};
    std::size_t at_ = 0;
    std::size_t size_ = 0;
};

ssize_t Peer::read(char* to, size_t size) {
    if (at_ == size_) {
        const ssize_t count =
            is_readable() ? recv(descriptor_, buffer_.data(), buffer_.size(), 0) : -1;
        if (count <= 0) {
            return count;
        }
        at_ = 0;
        size_ = static_cast<std::size_t>(count);
    }
    const std::size_t count = std::min({size, size_ - at_, left_});
    if (count == 0) {
        return -1; // longer than any request of ours
    }
    std::copy_n(buffer_.data() + at_, count, to);
    at_ += count;
    left_ -= count;
    return static_cast<ssize_t>(count);
}

/** All of it, or nothing is said to be written: the connection ends then. */
ssize_t Peer::write(const char* from, size_t size) {
    for (std::size_t sent = 0; sent < size;) {
        // Room may be for less than there is: a send that waited for the rest would have no end.
        const ssize_t count =
            is_writable() ? send(descriptor_, from + sent, size - sent, MSG_DONTWAIT | MSG_NOSIGNAL)
                          : -1;
        if (count < 0) {
            return -1;
        }
        sent += static_cast<std::size_t>(count);
    }
    return static_cast<ssize_t>(size);
}

Request requestOf(const httplib::Request& given) {
    Request request{given.method, given.path, {}, {}, given.remote_addr == LOCAL};
    request.parameters.insert(given.params.begin(), given.params.end());
    for (const auto& [name, value] : given.headers) {
        std::string& all = request.headers[lowerCase(name)];
        all += (all.empty() ? "" : ", ") + value;
    }
    return request;
}

/** A piece of an answer. @return false when there will be no more of it, whole or not */
bool putPiece(const std::function<std::string()>& more, httplib::DataSink& sink) {
    try {
        const std::string piece = more();
        if (piece.empty()) {
            sink.done();
            return true;
        }
        return sink.write(piece.data(), piece.size());
    } catch (const std::exception&) {
        return false;
    }
}

void put(Response&& response, httplib::Response& out) {
    out.headers.clear();
    out.status = response.status;
    for (const auto& [name, value] : response.headers) {
        out.set_header(name, value);
    }
    if (!response.more) {
        out.set_content(response.body, response.type);
        return;
    }
    auto first = std::make_shared<std::string>(std::move(response.body));
    out.set_chunked_content_provider(
        response.type, [first, more = std::move(response.more)](size_t, httplib::DataSink& sink) {
            if (first->empty()) {
                return putPiece(more, sink);
            }
            const std::string piece = std::exchange(*first, "");
            return sink.write(piece.data(), piece.size());
        });
}

/** The library's part: requests are read, answers written. Sockets and threads are ours. */
class Protocol final : public httplib::Server {
  public:
    Protocol(int listener, const std::function<Response(const Request&)>& answer) {
        svr_sock_ = listener; // what the library takes for the sign that it is not ending
        set_keep_alive_max_count(MOST_REQUESTS);
        set_keep_alive_timeout(IDLE.count());
        set_pre_routing_handler([answer](const httplib::Request& request, httplib::Response& out) {
            put(answer(requestOf(request)), out);
            return HandlerResponse::Handled;
        });
    }

    void serve(Peer& peer) {
        bool goesOn = true;
        for (unsigned count = 1; goesOn && peer.awaitRequest(); ++count) {
            bool isClosed = false;
            bool isSound = false; // stays so when no request can be made of what came
            const auto prepare = [&isSound](httplib::Request& request) {
                request.ranges.clear();
                request.headers.erase("Accept-Encoding");
                // A body, which nobody reads, must not be taken for the next request.
                isSound = (request.method == "GET" || request.method == "HEAD") &&
                          !request.has_header("Content-Length") &&
                          !request.has_header("Transfer-Encoding");
            };
            goesOn = process_request(peer, count == MOST_REQUESTS, isClosed, prepare) &&
                     !isClosed && isSound && count < MOST_REQUESTS;
        }
    }
};

class Descriptor {
  public:
    explicit Descriptor(int number) : number_(number) {}
    ~Descriptor() { close(number_); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int number() const { return number_; }

  private:
    int number_;
};

union Address {
    sockaddr any;
    sockaddr_in v4;
    sockaddr_in6 v6;
    sockaddr_un local;
};

socklen_t fill(Address& address, const ListenPlace& place) {
    if (!place.path.empty()) {
        address.local.sun_family = AF_UNIX;
        place.path.copy(address.local.sun_path, sizeof(address.local.sun_path) - 1);
        return sizeof(sockaddr_un);
    }
    if (inet_pton(AF_INET, place.address.c_str(), &address.v4.sin_addr) == 1) {
        address.v4.sin_family = AF_INET;
        address.v4.sin_port = htons(place.port);
        return sizeof(sockaddr_in);
    }
    inet_pton(AF_INET6, place.address.c_str(), &address.v6.sin6_addr);
    address.v6.sin6_family = AF_INET6;
    address.v6.sin6_port = htons(place.port);
    return sizeof(sockaddr_in6);
}

/** A socket that nobody listens at any more is in the way. */
void removeOld(const Address& address, socklen_t size) {
    struct stat state {};
    const bool isSocket = stat(address.local.sun_path, &state) == 0 && S_ISSOCK(state.st_mode);
    const Descriptor probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (isSocket && connect(probe.number(), &address.any, size) != 0 && errno == ECONNREFUSED) {
        unlink(address.local.sun_path);
    }
}

std::string nameOf(const ListenPlace& place, int listener) {
    if (!place.path.empty()) {
        return "unix:" + place.path;
    }
    Address address{};
    socklen_t size = sizeof(address);
    getsockname(listener, &address.any, &size);
    const bool isV6 = address.any.sa_family == AF_INET6;
    return (isV6 ? "[" + place.address + "]" : place.address) + ":" +
           std::to_string(ntohs(isV6 ? address.v6.sin6_port : address.v4.sin_port));
}

int listenAt(const ListenPlace& place) {
    Address address{};
    const socklen_t size = fill(address, place);
    if (!place.path.empty()) {
        removeOld(address, size);
    }
    const int listener =
        socket(address.any.sa_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int on = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (bind(listener, &address.any, size) != 0 || listen(listener, SOMAXCONN) != 0) {
        fail(nameOf(place, listener));
    }
    if (!place.path.empty()) {
        chmod(place.path.c_str(), S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP);
    }
    return listener;
}

/** The connections that are open. */
class Connections {
  public:
    Connections(Protocol& protocol, const ServerSettings& settings)
        : protocol_(protocol), settings_(settings) {}

    ~Connections() {
        for (Connection& connection : all_) {
            shutdown(connection.socket.number(), SHUT_RDWR);
        }
    }

    void take(int descriptor, const std::string& name) {
        std::erase_if(all_, [](const Connection& connection) { return connection.isOver.load(); });
        if (all_.size() >= settings_.connections || isTooMuchOf(name)) {
            const Descriptor refused(descriptor);
            send(descriptor, TOO_MANY, sizeof(TOO_MANY) - 1, MSG_DONTWAIT | MSG_NOSIGNAL);
            return;
        }
        Connection& connection = all_.emplace_back(descriptor, name);
        connection.thread = std::jthread([this, &connection] {
            Peer peer(connection.socket.number(), connection.name, settings_);
            protocol_.serve(peer);
            shutdown(connection.socket.number(), SHUT_RDWR);
            connection.isOver = true;
        });
    }

  private:
    struct Connection {
        Connection(int descriptor, std::string from) : socket(descriptor), name(std::move(from)) {}
        Descriptor socket;
        std::string name; // of the peer
        std::atomic<bool> isOver = false;
        std::jthread thread; // ends before the socket is closed
    };

    /** A proxy on this host speaks for many. */
    bool isTooMuchOf(const std::string& name) const {
        return name != LOCAL &&
               std::ranges::count(all_, name, &Connection::name) >= settings_.perHost;
    }

    Protocol& protocol_;
    const ServerSettings& settings_;
    std::list<Connection> all_;
};

void acceptOne(int listener, Connections& connections) {
    Address address{};
    socklen_t size = sizeof(address);
    const int descriptor = accept4(listener, &address.any, &size, SOCK_CLOEXEC);
    if (descriptor >= 0) {
        // Head and body go out one after the other: the second must not wait for the first's
        // receipt.
        const int on = 1;
        setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        connections.take(descriptor, clientOf(address.any));
    } else if (errno == EMFILE || errno == ENFILE || errno == ENOMEM) {
        std::this_thread::sleep_for(milliseconds(100)); // what is open ends by itself
    }
}

} // namespace

int serve(const ServerSettings& settings) {
    const Descriptor listener(listenAt(settings.listen));
    sigset_t ends{};
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    const Descriptor signals(signalfd(-1, &ends, SFD_CLOEXEC));
    Protocol protocol(listener.number(), settings.answer);
    Connections connections(protocol, settings);
    settings.say("listening on " + nameOf(settings.listen, listener.number()));
    for (;;) {
        std::array<pollfd, 2> entries = {
            {{listener.number(), POLLIN, 0}, {signals.number(), POLLIN, 0}}};
        if (poll(entries.data(), entries.size(), -1) < 0 && errno != EINTR) {
            fail("poll");
        }
        if (entries[1].revents != 0) {
            signalfd_siginfo info{};
            const ssize_t count = read(signals.number(), &info, sizeof(info));
            if (!settings.listen.path.empty()) {
                unlink(settings.listen.path.c_str());
            }
            return count == sizeof(info) ? static_cast<int>(info.ssi_signo) : SIGTERM;
        }
        if (entries[0].revents != 0) {
            acceptOne(listener.number(), connections);
        }
    }
}

} // namespace evweb
