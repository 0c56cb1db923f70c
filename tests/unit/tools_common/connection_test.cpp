#include "common/connection.h"

#include <gtest/gtest.h>

#include <deque>
#include <sys/socket.h>
#include <unistd.h>

using tools::Outgoing;

namespace {

/** Sends one piece at a time, and says after each what it is told to. */
class Script : public Outgoing {
  public:
    State flush(int descriptor) override {
        ++calls;
        while (!pieces.empty()) {
            if (!states.empty() && states.front() != State::EMPTY) {
                const State state = states.front();
                states.pop_front();
                return state;
            }
            if (!states.empty()) {
                states.pop_front();
            }
            EXPECT_EQ(send(descriptor, pieces.front().data(), pieces.front().size(), MSG_NOSIGNAL),
                      static_cast<ssize_t>(pieces.front().size()));
            pieces.pop_front();
        }
        return State::EMPTY;
    }
    size_t bytes() const override {
        size_t sum = 0;
        for (const std::string& piece : pieces) {
            sum += piece.size();
        }
        return sum;
    }

    std::deque<std::string> pieces;
    std::deque<State> states; ///< EMPTY: the next piece may go
    int calls = 0;
};

class Recorder final : public tools::Connection {
  public:
    explicit Recorder(Stream socket) : Connection(std::move(socket), outgoing) {}

    using Connection::close;
    using Connection::endInOrder;
    using Connection::read;

    std::span<U8_t> space() override { return buffer_; }
    bool received(size_t bytes) override {
        heard.append(reinterpret_cast<const char*>(buffer_.data()), bytes);
        return readsOn;
    }
    void peerEnded(std::error_code why) override {
        ended = why;
        close();
    }
    void flushed(Outgoing::State state) override { states.push_back(state); }
    void closed() override { ++closings; }

    Script outgoing;
    std::string heard;
    std::error_code ended;
    std::vector<Outgoing::State> states;
    int closings = 0;
    bool readsOn = true;

  private:
    std::array<U8_t, 64> buffer_{};
};

class ConnectionTest : public testing::Test {
  protected:
    ConnectionTest() {
        int pair[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
        peer_ = pair[1];
        connection_ = std::make_shared<Recorder>(
            asio::local::stream_protocol::socket(loop_, asio::local::stream_protocol(), pair[0]));
    }
    ~ConnectionTest() override { closePeer(); }

    void closePeer() {
        if (peer_ >= 0) {
            close(std::exchange(peer_, -1));
        }
    }
    void say(const std::string& text) {
        EXPECT_EQ(send(peer_, text.data(), text.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(text.size()));
    }

    /** Runs the loop until something holds. */
    template <typename Condition>
    void runUntil(const Condition& condition) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (!condition() && std::chrono::steady_clock::now() < end) {
            loop_.restart();
            loop_.run_for(std::chrono::milliseconds(1));
        }
        ASSERT_TRUE(condition());
    }

    /** What the peer has got; "#" for an end. */
    std::string got() {
        char buffer[256];
        const ssize_t size = recv(peer_, buffer, sizeof(buffer), MSG_DONTWAIT);
        return size == 0 ? "#" : std::string(buffer, size < 0 ? 0 : static_cast<size_t>(size));
    }

    asio::io_context loop_;
    int peer_ = -1;
    std::shared_ptr<Recorder> connection_;
};

} // namespace

TEST_F(ConnectionTest, ReadsWhatComesUntilThePeerEnds) {
    connection_->read();
    say(std::string(200, 'a')); // more than it has space for at once
    closePeer();
    runUntil([this] { return connection_->closings == 1; });
    EXPECT_EQ(connection_->heard.size(), 200U);
    EXPECT_EQ(connection_->ended, asio::error::eof);
}

TEST_F(ConnectionTest, IsNotReadOnUntilAsked) {
    connection_->readsOn = false;
    connection_->read();
    say(std::string(65, 'a'));
    runUntil([this] { return connection_->heard.size() == 64; });
    loop_.restart();
    EXPECT_EQ(loop_.run(), 0U); // nothing is under way
    connection_->read();
    connection_->read(); // twice is once
    runUntil([this] { return connection_->heard.size() == 65; });
}

TEST_F(ConnectionTest, WaitsForRoomAndForTime) {
    connection_->outgoing.pieces = {"one", "two", "three"};
    connection_->outgoing.states = {Outgoing::State::EMPTY, Outgoing::State::FULL,
                                    Outgoing::State::EMPTY, Outgoing::State::LATER,
                                    Outgoing::State::LATER};
    connection_->flush();
    EXPECT_EQ(got(), "one");
    connection_->flush(); // goes by itself now
    EXPECT_EQ(connection_->outgoing.calls, 1);
    runUntil([this] { return connection_->outgoing.pieces.empty(); });
    EXPECT_EQ(got(), "twothree");
    EXPECT_EQ(connection_->states, (std::vector{Outgoing::State::FULL, Outgoing::State::LATER,
                                                Outgoing::State::LATER, Outgoing::State::EMPTY}));
}

TEST_F(ConnectionTest, IsReadWhenNothingGoesOutAnyMore) {
    connection_->outgoing.pieces = {"one"};
    connection_->outgoing.states = {Outgoing::State::BROKEN};
    connection_->flush();
    connection_->flush(); // in vain
    EXPECT_EQ(connection_->outgoing.calls, 1);
    connection_->read();
    say("last words");
    runUntil([this] { return connection_->heard == "last words"; });
}

TEST_F(ConnectionTest, OrderlyEndSendsWhatWaitsAndThrowsAwayWhatStillComes) {
    connection_->read();
    connection_->outgoing.pieces = {"one", "two"};
    connection_->outgoing.states = {Outgoing::State::EMPTY, Outgoing::State::LATER};
    connection_->flush();
    connection_->endInOrder();
    connection_->endInOrder(); // once is enough
    EXPECT_TRUE(connection_->isEnding());
    EXPECT_EQ(got(), "one");
    EXPECT_EQ(got(), "") << "no end before the rest";
    say("more");
    runUntil([this] { return connection_->outgoing.pieces.empty(); });
    EXPECT_EQ(got(), "two");
    EXPECT_EQ(got(), "#");
    say("and more");
    EXPECT_EQ(connection_->closings, 0);
    closePeer();
    runUntil([this] { return connection_->closings == 1; });
    EXPECT_EQ(connection_->heard, "");
    EXPECT_FALSE(connection_->ended);
}

TEST_F(ConnectionTest, EndsOnceAndIsGoneWithWhatItHadUnderWay) {
    connection_->read();
    connection_->outgoing.pieces = {"one"};
    connection_->outgoing.states = {Outgoing::State::LATER};
    connection_->flush();
    connection_->close();
    connection_->close();
    EXPECT_EQ(connection_->closings, 1);
    EXPECT_EQ(got(), "#");
    std::weak_ptr<Recorder> gone = connection_;
    connection_.reset();
    loop_.run();
    EXPECT_TRUE(gone.expired());
}
