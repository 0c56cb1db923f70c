#include "acceptor.h"

#include "endpoint_text.h"

#include <asio/post.hpp>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <utility>

namespace evarchive {
namespace {

// Before the next look for connections: after there was no descriptor, and when the pace is kept.
constexpr std::chrono::milliseconds DESCRIPTOR_PAUSE{500};
constexpr std::chrono::milliseconds PACE_PAUSE{5};

// Connections that the system keeps for us; it may allow fewer.
constexpr int BACKLOG = 65'535;

// Between two lines about connections that were not taken.
constexpr std::chrono::seconds REFUSAL_PAUSE{10};

} // namespace

Acceptor::Acceptor(asio::io_context& context, Settings settings, Callbacks callbacks)
    : context_(context), settings_(std::move(settings)), callbacks_(std::move(callbacks)),
      admission_(settings_.allow,
                 reserveDescriptors(settings_.limit, settings_.usualLimit, settings_.descriptors),
                 settings_.hostLimit),
      pace_(settings_.rate) {
    bind();
}

void Acceptor::bind() {
    acceptor_.open(settings_.listen.protocol());
    acceptor_.set_option(asio::socket_base::reuse_address(true));
    if (settings_.receiveBuffer > 0) {
        // Before listen(): connections take the window scale that they get from it.
        acceptor_.set_option(asio::socket_base::receive_buffer_size(settings_.receiveBuffer));
    }
    if (settings_.segmentSize > 0) {
        // A failure shows as segments of the usual size.
        setsockopt(acceptor_.native_handle(), IPPROTO_TCP, TCP_MAXSEG, &settings_.segmentSize,
                   sizeof(settings_.segmentSize));
    }
    acceptor_.bind(settings_.listen);
    acceptor_.non_blocking(true);
}

void Acceptor::start() {
    if (!settings_.refuses) {
        acceptor_.listen(BACKLOG);
        awaitConnections();
    }
}

void Acceptor::close() {
    isClosed_ = true;
    asio::error_code ignored;
    acceptor_.close(ignored);
    pause_.cancel();
}

void Acceptor::awaitConnections() {
    acceptor_.async_wait(asio::ip::tcp::acceptor::wait_read, [this](asio::error_code error) {
        if (!error && !isClosed_) {
            acceptAll();
        }
    });
}

void Acceptor::acceptLater(std::chrono::milliseconds pause) {
    pause_.expires_after(pause);
    pause_.async_wait([this](asio::error_code error) {
        if (!error && !isClosed_) {
            acceptAll();
        }
    });
}

void Acceptor::acceptAll() {
    // Links that are there have their turn in between.
    constexpr int AT_A_TIME = 64;
    for (int taken = 0; taken < AT_A_TIME; ++taken) {
        if (!pace_.take(Clock::now())) {
            acceptLater(PACE_PAUSE);
            return;
        }
        if (!acceptOne()) {
            return;
        }
    }
    asio::post(context_, [this] {
        if (!isClosed_) {
            acceptAll();
        }
    });
}

// @return whether there may be a further one at once; else somebody looks again
bool Acceptor::acceptOne() {
    asio::error_code error;
    asio::ip::tcp::socket socket(context_);
    acceptor_.accept(socket, error);
    if (!error) {
        take(std::move(socket));
        return true;
    }
    if (error == asio::error::would_block || error == asio::error::try_again) {
        awaitConnections();
        return false;
    }
    if (error == asio::error::no_descriptors || error.value() == ENFILE) {
        const bool wasThere = spare_.refuseOne(acceptor_.native_handle());
        if (wasThere) {
            refuse("a connection", "there is no descriptor left");
            return true;
        }
        acceptLater(DESCRIPTOR_PAUSE);
        return false;
    }
    // That connection is gone already, or memory is short.
    acceptLater(PACE_PAUSE);
    return false;
}

void Acceptor::take(asio::ip::tcp::socket socket) {
    asio::error_code error;
    const auto peer = socket.remote_endpoint(error);
    if (error) {
        return; // gone already
    }
    auto why = callbacks_.whyNot ? callbacks_.whyNot() : std::nullopt;
    if (!why) {
        why = admission_.enter(peer.address());
    }
    if (why) {
        refuse(textOfEndpoint(peer), *why);
        return;
    }
    callbacks_.take(std::move(socket), peer);
}

void Acceptor::refuse(const std::string& peer, const std::string& why) {
    ++refused_;
    if (Clock::now() < saidRefused_ + REFUSAL_PAUSE) {
        ++refusedSilently_;
        return;
    }
    saidRefused_ = Clock::now();
    const U64_t more = std::exchange(refusedSilently_, 0);
    callbacks_.say(Level::WARNING,
                   peer + ": closed, " + why +
                       (more > 0 ? "; so were " + std::to_string(more) + " others" : ""));
}

} // namespace evarchive
