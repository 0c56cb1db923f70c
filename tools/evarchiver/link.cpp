#include "link.h"

#include "whole_send.h"

#include <asio/buffer.hpp>

namespace evarchive {
namespace {

// A handle that no blade has asked with: blades count theirs up from small numbers.
constexpr U32_t HANDLE_SPOILER = 0x80000000;

// Spoils a response as the test switches ask.
void spoil(Bytes& response, const Misbehaviour& bad) {
    auto header = imageOf<EmpEvArchiverMsgHeader_t>(response);
    if (bad.wrongVersion) {
        header.evArchiverMsgHdrVersion = U16_t{HEADER_VERSION + 1};
    }
    if (bad.unknownHandle) {
        header.evArchiverMsgHandle = header.evArchiverMsgHandle ^ HANDLE_SPOILER;
    }
    std::ranges::copy(viewOf(header), response.begin());
}

void setUpSocket(asio::ip::tcp::socket& socket) {
    asio::error_code ignored; // a socket that is gone shows at its first read
    // Without it the end of a response waits for the blade to acknowledge its beginning.
    socket.set_option(asio::ip::tcp::no_delay(true), ignored);
    socket.set_option(asio::socket_base::send_buffer_size(SEND_BUFFER), ignored);
    socket.set_option(asio::socket_base::keep_alive(true), ignored);
}

} // namespace

Link::Link(asio::ip::tcp::socket socket, const std::string& peer, const Options& options,
           Archive& archive, SessionCounts& counts, Listener listener, Say say)
    : socket_(std::move(socket)), peer_(peer), options_(options), listener_(std::move(listener)),
      say_(std::move(say)),
      session_(
          archive, counts, peer, [this](Bytes response) { answer(std::move(response)); }, say_,
          options.misbehaviour.closeAfter) {}

void Link::start() {
    setUpSocket(socket_);
    if (!options_.misbehaviour.neverRead) {
        read();
    }
}

void Link::read() {
    socket_.async_read_some(asio::buffer(input_),
                            [self = shared_from_this()](asio::error_code error, std::size_t size) {
                                if (error) {
                                    self->close();
                                } else {
                                    self->received(size);
                                }
                            });
}

void Link::received(std::size_t length) {
    if (isClosed_) {
        return;
    }
    lastHeard_ = Clock::now();
    const Verdict verdict = session_.receive(View(input_).first(length));
    listener_.heard();
    if (verdict == Verdict::CLOSE || isFailed_) {
        close();
    } else {
        read();
    }
}

void Link::idleSince(Clock::time_point since) {
    if (!isClosed_ && lastHeard_ <= since && session_.idle() == Verdict::CLOSE) {
        close();
    }
}

void Link::answer(Bytes response) {
    const Misbehaviour& bad = options_.misbehaviour;
    if (bad.onlyType != 0 && typeOf(response) != bad.onlyType) {
        enqueue(std::move(response));
        return;
    }
    spoil(response, bad);
    for (int time = bad.twice ? 0 : 1; time < 2; ++time) {
        if (bad.late.count() > 0) {
            sendLate(response);
        } else {
            enqueue(response);
        }
    }
}

void Link::sendLate(Bytes response) {
    auto timer =
        std::make_shared<asio::steady_timer>(socket_.get_executor(), options_.misbehaviour.late);
    timer->async_wait(
        [self = shared_from_this(), timer, response = std::move(response)](asio::error_code error) {
            if (!error && !self->isClosed_) {
                self->enqueue(response);
                if (self->isFailed_) {
                    self->close();
                }
            }
        });
}

void Link::enqueue(Bytes response) {
    outputBytes_ += response.size();
    output_.push_back(std::move(response));
    flush();
    if (outputBytes_ > options_.answerLimit && !isFailed_) {
        say_(peer_ + ": does not read its answers, closed");
        isFailed_ = true;
    }
}

void Link::flush() {
    while (!output_.empty() && !isFailed_) {
        switch (sendWhole(socket_.native_handle(), output_.front())) {
        case Sent::WHOLE:
            outputBytes_ -= output_.front().size();
            output_.pop_front();
            break;
        case Sent::LATER:
            waitForRoom();
            return;
        case Sent::BROKEN:
            isFailed_ = true;
            return;
        }
    }
}

void Link::waitForRoom() {
    if (isWaitingForRoom_) {
        return;
    }
    isWaitingForRoom_ = true;
    socket_.async_wait(asio::ip::tcp::socket::wait_write,
                       [self = shared_from_this()](asio::error_code error) {
                           self->isWaitingForRoom_ = false;
                           if (self->isClosed_) {
                               return;
                           }
                           self->isFailed_ = self->isFailed_ || error;
                           self->flush();
                           if (self->isFailed_) {
                               self->close();
                           }
                       });
}

void Link::close() {
    if (isClosed_) {
        return;
    }
    isClosed_ = true;
    session_.end();
    asio::error_code ignored;
    socket_.close(ignored);
    listener_.closed(shared_from_this());
}

} // namespace evarchive
