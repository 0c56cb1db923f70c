#include "link.h"

#include "common/say.h"

namespace msm {

using tools::say;

namespace {

constexpr std::chrono::milliseconds RETRY_INTERVAL{100};

} // namespace

Link::Link(asio::io_context& loop, std::string path, size_t queueMax)
    : loop_(loop), path_(std::move(path)), queueMax_(queueMax), socket_(loop), timer_(loop) {
    connect();
}

bool Link::post(std::span<const U8_t> message) {
    return connection_ && connection_->post(message);
}

void Link::flush() {
    if (connection_) {
        connection_->flush();
    }
}

void Link::connect() {
    socket_ = Socket(loop_);
    socket_.async_connect(asio::local::stream_protocol::endpoint(path_),
                          [this](std::error_code error) {
                              if (error) {
                                  retry(error.message());
                              } else {
                                  connected();
                              }
                          });
}

void Link::retry(const std::string& why) {
    if (!complained_) {
        say("link: the other switch is not there yet: " + path_ + ": " + why);
        complained_ = true;
    }
    timer_.expires_after(RETRY_INTERVAL);
    timer_.async_wait([this](std::error_code error) {
        if (!error) {
            connect();
        }
    });
}

void Link::connected() {
    complained_ = false;
    say("link: connected to " + path_);
    Connection::Callbacks callbacks;
    // The other switch sends through our own link socket, never here.
    callbacks.message = [](Connection& connection, std::span<U8_t>) {
        say(connection.name() + ": ignored a message that came the wrong way");
        return true;
    };
    callbacks.end = [this](Connection& connection, End) {
        lost_ += connection.unsent().count();
        connection_.reset();
        say("link: lost " + path_);
        retry("");
    };
    connection_ =
        std::make_shared<Connection>(std::move(socket_), "link", queueMax_, std::move(callbacks));
    connection_->start();
}

} // namespace msm
