/** What a RELP receiver may answer, and what becomes of a link on which it answers something else.
 */
#include "evbridge/sinks.h"

#include "link_messages.h"
#include "temp_directory.h"

#include <gmock/gmock.h>

#include <sys/un.h>
#include <thread>
#include <unistd.h>

using evbridge::SinkAway;
using testing::EndsWith;

namespace {

constexpr char OPENED[] = "1 rsp 6 200 OK\n";

/** A receiver that says all that it has to say at once, then nothing more. */
class Scripted {
  public:
    explicit Scripted(const std::string& path) : listener_(socket(AF_UNIX, SOCK_STREAM, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        EXPECT_EQ(listen(listener_, 8), 0);
    }
    ~Scripted() { close(listener_); }
    Scripted(const Scripted&) = delete;
    Scripted& operator=(const Scripted&) = delete;

    /** Takes one connection while @p work goes on. */
    template <typename Work>
    void answering(const std::string& script, const Work& work) const {
        std::thread peer([this, &script] {
            const int taken = accept(listener_, nullptr, nullptr);
            send(taken, script.data(), script.size(), MSG_NOSIGNAL);
            shutdown(taken, SHUT_WR);
            char bytes[4096];
            while (recv(taken, bytes, sizeof(bytes), 0) > 0) {
            }
            close(taken);
        });
        work();
        peer.join();
    }

  private:
    int listener_;
};

class RelpAnswers : public testing::Test {
  protected:
    RelpAnswers() {
        evbridge::Place place = evbridge::unixPlace(path_);
        place.type = SOCK_STREAM;
        sink_ = evbridge::relpSink(std::make_unique<evbridge::Channel>(place), 32'473);
    }

    /** Hands events on to one who answers so. @return why they are not handed on; empty: they are
     */
    std::string handOn(const std::string& script, U32_t events = 1) {
        std::string why;
        receiver_.answering(script, [&] {
            try {
                for (sent_ = 0; sent_ < events; ++sent_) {
                    sink_->send({.image = support::eventBody({.id = sent_})});
                }
                sink_->confirm();
            } catch (const SinkAway& away) {
                why = away.what();
            }
            if (why.empty()) {
                sink_.reset(); // which ends the connection
            }
        });
        return why;
    }

    support::TempDirectory directory_;
    std::string path_ = directory_.file("receiver");
    Scripted receiver_{path_};
    std::unique_ptr<evbridge::Sink> sink_;
    U32_t sent_ = 0;
};

} // namespace

TEST_F(RelpAnswers, InAnyOrderAreAnswers) {
    EXPECT_EQ(
        handOn(OPENED + std::string("3 rsp 6 200 OK\n2 rsp 3 200\n4 rsp 10 200 OK\nand\n"), 3), "");
}

struct Answered {
    const char* answer;
    const char* why;
};

class RelpMisanswers : public RelpAnswers, public testing::WithParamInterface<Answered> {};

TEST_P(RelpMisanswers, EndTheLinkForAReasonThatIsSaid) {
    EXPECT_THAT(handOn(std::string(OPENED) + GetParam().answer), EndsWith(GetParam().why));
}

constexpr char NO_RELP[] = "what it answers is no RELP";
constexpr char NOT_ASKED[] = "it answers what it was not asked";

INSTANTIATE_TEST_SUITE_P(
    Of, RelpMisanswers,
    testing::Values(
        Answered{"2 rsp 6 200 OKx", NO_RELP}, Answered{"x rsp 6 200 OK\n", NO_RELP},
        Answered{"2x rsp 6 200 OK\n", NO_RELP}, Answered{" rsp 6 200 OK\n", NO_RELP},
        Answered{"99999999999 rsp 6 200 OK\n", NO_RELP},
        Answered{"1000000000 rsp 6 200 OK\n", NO_RELP}, Answered{"2 rsp -6 200 OK\n", NO_RELP},
        Answered{"999999999 rsp 6 200 OK\n", NOT_ASKED}, Answered{"1 rsp 6 200 OK\n", NOT_ASKED},
        Answered{"2 syslog 6 200 OK\n", NOT_ASKED}, Answered{"0 serverclose 0\n", "it ends"},
        Answered{"2 rsp 3 250\n", "it refuses: 250"}, Answered{"2 rsp 2 20\n", "it refuses: 20"},
        Answered{"2 rsp 0\n", "it refuses: "},
        Answered{"2 rsp 13 500 full\nmore\n", "it refuses: 500 full"}));

TEST_F(RelpAnswers, ThatDoNotEndEndTheLink) {
    EXPECT_THAT(handOn(OPENED + std::string(70'000, 'x')), EndsWith("its answer does not end"));
    EXPECT_THAT(handOn(OPENED + std::string("2 rsp 99999 ") + std::string(99'999, 'x') + "\n"),
                EndsWith("its answer does not end"));
}

TEST_F(RelpAnswers, AreAwaitedWhenSoManyAreOpen) {
    EXPECT_NE(handOn(OPENED, 200), "");
    EXPECT_EQ(sent_, 127U);
}

TEST_F(RelpAnswers, OfAnEarlierLinkDoNotCount) {
    EXPECT_NE(handOn(OPENED + std::string("2 rsp 6 20"), 2), "");
    EXPECT_EQ(handOn(OPENED + std::string("2 rsp 6 200 OK\n"), 1), "");
}
