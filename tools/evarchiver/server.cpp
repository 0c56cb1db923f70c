#include "server.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace evarchive {
namespace {

// How long nothing must have come before the event at hand counts as whole and is committed.
constexpr std::chrono::milliseconds SETTLE_TIME{100};

// After a failure to take a connection, which mostly is a lack of descriptors.
constexpr std::chrono::milliseconds ACCEPT_PAUSE{500};

std::string textOfEndpoint(const asio::ip::tcp::endpoint& endpoint) {
    const std::string address = endpoint.address().to_string();
    return (endpoint.address().is_v6() ? "[" + address + "]" : address) + ":" +
           std::to_string(endpoint.port());
}

std::string count(U64_t number, const char* what) {
    return std::to_string(number) + " " + what;
}

} // namespace

std::string progressLine(const ArchiveCounts& archive, const SessionCounts& sessions) {
    return count(sessions.messages, "messages, ") + count(archive.stored, "events stored, ") +
           count(archive.duplicates, "duplicates dropped, ") +
           count(archive.generations, "generations opened, ") +
           count(archive.strangers, "of another identity, ") + count(archive.refused, "refused, ") +
           count(archive.statusAnswers, "status answers, ") +
           count(archive.found, "inquiries answered, ") +
           count(archive.notFound, "answered with nothing, ") +
           count(sessions.bordersLost, "streams without borders, ") +
           count(sessions.givenUp, "events given up");
}

Server::Server(const Options& options, Archive& archive, Say say)
    : options_(options), archive_(archive), say_(std::move(say)) {
    acceptor_.open(options.listen.protocol());
    acceptor_.set_option(asio::socket_base::reuse_address(true));
    if (options.receiveBuffer > 0) {
        // Before listen(): connections take the window scale that they get from it.
        acceptor_.set_option(asio::socket_base::receive_buffer_size(options.receiveBuffer));
    }
    if (options.segmentSize > 0) {
        // A failure shows as segments of the usual size.
        setsockopt(acceptor_.native_handle(), IPPROTO_TCP, TCP_MAXSEG, &options.segmentSize,
                   sizeof(options.segmentSize));
    }
    acceptor_.bind(options.listen);
    if (!options.misbehaviour.refuse) {
        listen();
    }
    say_("listening on " + textOfEndpoint(acceptor_.local_endpoint()) +
         (options.misbehaviour.refuse ? ", refusing all connections" : ""));
}

void Server::listen() {
    acceptor_.listen();
    accept();
}

void Server::accept() {
    acceptor_.async_accept([this](asio::error_code error, asio::ip::tcp::socket socket) {
        if (error == asio::error::operation_aborted) {
            return;
        }
        if (error) {
            say_("cannot take a connection: " + error.message());
            acceptLater();
            return;
        }
        accepted(std::move(socket));
        accept();
    });
}

void Server::acceptLater() {
    acceptPause_.expires_after(ACCEPT_PAUSE);
    acceptPause_.async_wait([this](asio::error_code error) {
        if (!error) {
            accept();
        }
    });
}

void Server::accepted(asio::ip::tcp::socket socket) {
    asio::error_code error;
    const auto endpoint = socket.remote_endpoint(error);
    if (error) {
        return; // gone already
    }
    const std::string peer = textOfEndpoint(endpoint);
    if (links_.size() >= options_.connectionLimit) {
        say_(peer + ": closed, there are " + std::to_string(links_.size()) + " links already");
        return;
    }
    Link::Listener listener{[this] { armSettling(); },
                            [this](const std::shared_ptr<Link>& link) {
                                links_.erase(link);
                                armSettling();
                            }};
    const auto link = std::make_shared<Link>(std::move(socket), peer, options_, archive_, counts_,
                                             std::move(listener), say_);
    links_.insert(link);
    link->start();
}

void Server::armSettling() {
    if (isSettling_) {
        return;
    }
    isSettling_ = true;
    settling_.expires_after(SETTLE_TIME);
    settling_.async_wait([this](asio::error_code error) {
        isSettling_ = false;
        if (!error) {
            settle();
        }
    });
}

void Server::settle() {
    const auto since = Clock::now() - SETTLE_TIME;
    const auto links = links_; // a link that closes leaves the set
    for (const auto& link : links) {
        link->idleSince(since);
    }
    archive_.commit();
    for (const auto& link : links_) {
        if (link->isUnsettled()) {
            armSettling();
        }
    }
}

void Server::armProgress() {
    if (options_.progress.count() == 0) {
        return;
    }
    progress_.expires_after(options_.progress);
    progress_.async_wait([this](asio::error_code error) {
        if (error) {
            return;
        }
        const std::string line = progressLine(archive_.counts(), counts_);
        if (line != lastProgress_) {
            say_(line);
            lastProgress_ = line;
        }
        armProgress();
    });
}

void Server::run() {
    signals_.async_wait([this](asio::error_code error, int) {
        if (!error) {
            stop();
        }
    });
    armProgress();
    context_.run();
}

void Server::stop() {
    const auto links = links_;
    for (const auto& link : links) {
        link->close();
    }
    archive_.commit();
    context_.stop();
}

} // namespace evarchive
