#include "link.h"

#include "common/say.h"
#include "trace.h"

namespace msm {

using tools::say;

namespace {

constexpr std::chrono::milliseconds RETRY_INTERVAL{100};

} // namespace

Link::Link(asio::io_context& loop, std::string path, size_t queueMax,
           std::function<void()> progressed)
    : loop_(loop), path_(std::move(path)), queueMax_(queueMax), progressed_(std::move(progressed)),
      socket_(loop), timer_(loop) {
    connect(EVENTS);
}

bool Link::post(std::span<const U8_t> message) {
    const auto& header = *reinterpret_cast<const MMCH_t*>(message.data());
    return isUp() &&
           ways_[isForManager(recipientsOf(header.recipient_ob_bm)) ? EVENTS : OTHERS]->post(
               message);
}

void Link::flush() {
    if (isUp()) {
        ways_[EVENTS]->flush();
        ways_[OTHERS]->flush();
    }
}

bool Link::eventsMustWait() {
    return isUp() && !ways_[EVENTS]->hasRoom() && !ways_[EVENTS]->peerIsGone();
}

bool Link::eventsHaveRoom() const {
    return !isUp() || ways_[EVENTS]->unsent().count() <= queueMax_ / 2;
}

size_t Link::unsent() const {
    size_t waiting = lost_ + kept_.count();
    for (const std::shared_ptr<Connection>& way : ways_) {
        waiting += way ? way->unsent().count() : 0;
    }
    return waiting;
}

void Link::connect(Way way) {
    socket_ = Socket(loop_);
    socket_.async_connect(asio::local::stream_protocol::endpoint(path_),
                          [this, way](std::error_code error) {
                              if (error) {
                                  lost();
                                  retry(error.message());
                              } else {
                                  connected(way);
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
            connect(EVENTS);
        }
    });
}

void Link::connected(Way way) {
    if (way == OTHERS && !ways_[EVENTS]) {
        retry("it ended"); // while this one was made
        return;
    }
    Connection::Callbacks callbacks;
    // The other switch sends through our own link socket, never here.
    callbacks.message = [](Connection& connection, std::span<U8_t>) {
        say(connection.name() + ": ignored a message that came the wrong way");
        return true;
    };
    callbacks.end = [this, way](Connection& connection, End) {
        if (ways_[way].get() != &connection) {
            return; // the other one ended, and this one with it
        }
        bool wasUp = isUp();
        lost();
        if (wasUp) {
            say("link: lost " + path_);
            retry("it ended");
        }
    };
    if (way == EVENTS) {
        callbacks.progress = [this](Connection&) { progressed_(); };
    }
    ways_[way] =
        std::make_shared<Connection>(std::move(socket_), "link", queueMax_, std::move(callbacks));
    ways_[way]->start();
    if (way == EVENTS) {
        connect(OTHERS);
        return;
    }
    complained_ = false;
    say("link: connected to " + path_);
    ways_[EVENTS]->unsent().append(kept_);
    ways_[EVENTS]->flush();
    progressed_();
}

/** Ends both connections. What is for the event manager is kept until they are made again; what
 * comes until then has nobody to wait for. */
void Link::lost() {
    std::array<std::shared_ptr<Connection>, WAYS> ended = std::move(ways_);
    ways_ = {};
    for (const std::shared_ptr<Connection>& way : ended) {
        if (way) {
            way->close("");
        }
    }
    if (ended[EVENTS]) {
        kept_.append(ended[EVENTS]->unsent());
    }
    if (ended[OTHERS]) {
        lost_ += ended[OTHERS]->unsent().count();
    }
    progressed_();
}

} // namespace msm
