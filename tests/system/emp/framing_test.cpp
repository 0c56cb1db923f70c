#include "blade.h"
#include "dying_child.h"

#include <csignal>
#include <gtest/gtest.h>
#include <random>
#include <sys/socket.h>

using namespace support;

namespace {

/** A type-4 message whose header announces @p length. */
Bytes announcing(size_t length) {
    Bytes message = bareMessage(4);
    message[10] = static_cast<U8_t>(length >> 8);
    message[11] = static_cast<U8_t>(length);
    return message;
}

/** Message of @p length, oversize ones included. */
Bytes longMessage(size_t length) {
    Bytes message = announcing(length);
    message.resize(length, 0xEE);
    return message;
}

TEST(Framing, HeaderOnlyMessageIsServed) {
    Blade blade;
    RunningEmp emp(blade);
    emp.startQuietly();
    emp.msm.send(bareMessage(4));
    emp.process.waitForOutput("EMP does not support Get Event Archiver Message.");
}

TEST(Framing, HeaderOnlyEventShowsNoByteOfTheOneBefore) {
    Blade blade;
    RunningEmp emp(blade);
    emp.startQuietly();
    emp.log(18, Bytes(500, 0x55));
    emp.msm.send(joined({bareMessage(1), bareMessage(4)}));
    emp.process.waitForOutput("EMP does not support");
    std::string output = emp.process.output();
    size_t rejected = output.find("mmsh_length [64] is out of range");
    ASSERT_NE(rejected, std::string::npos);
    EXPECT_NE(output.find("evEnclosureId            = []\n", rejected), std::string::npos);
    EXPECT_EQ(output.find("= [CHASSIS-7]", rejected), std::string::npos);
}

TEST(Framing, OversizeMessagesAreDroppedAndTheNextIsServed) {
    Blade blade;
    RunningEmp emp(blade);
    emp.startQuietly();
    U32_t id = 1;
    for (size_t length : {4065U, 5000U, 65535U}) {
        emp.msm.send(longMessage(length));
        EXPECT_EQ(emp.log(18, {1}), id++);
        std::string line = "empProcEventMmsgMsg(): MMSG mmsh_length [" + std::to_string(length) +
                           "] is out of range\n";
        emp.process.waitForOutput(line.substr(0, line.size() - 1));
        EXPECT_EQ(emp.process.output().find("EMP does not support"), std::string::npos);
    }
}

TEST(Framing, LengthZeroDispatchesTheMessageBeforeAgainAndAgain) {
    Blade blade;
    RunningEmp emp(blade);
    emp.startQuietly();
    emp.msm.send(bareMessage(4));
    emp.process.waitForOutput("EMP does not support");
    emp.msm.send(announcing(0));
    requireSoon(
        [&] {
            std::string output = emp.process.output();
            int seen = 0;
            for (size_t at = 0; (at = output.find("EMP does not support", at)) != std::string::npos;
                 at++) {
                seen++;
            }
            return seen >= 5;
        },
        "the same message again");
    EXPECT_EQ(emp.process.poll(), std::nullopt);
    emp.kill();
}

TEST(Framing, EventRepeatedByLengthZeroIsNoLongerForUs) {
    Blade blade;
    RunningEmp emp(blade);
    emp.startQuietly();
    EXPECT_EQ(emp.log(18, {1}), 1U);
    emp.msm.send(announcing(0));
    emp.process.waitForOutput("empProcEventMmsgMsg(): Received a MMSG but it isn't for us?");
    emp.kill();
    RunningEmp again(blade);
    again.start();
    EXPECT_EQ(again.log(18, {1}), 2U) << "it was stored once";
}

TEST(Framing, LengthsBelowAHeaderAreJudgedByWhatTheBufferHolds) {
    for (size_t length : {1U, 11U, 12U, 63U}) {
        Blade blade;
        RunningEmp emp(blade);
        emp.startQuietly();
        emp.msm.send(announcing(length));
        // Fewer than 12 bytes do not reach the length, which then is that of an empty buffer.
        size_t judged = length < 12 ? 0 : length;
        emp.process.waitForOutput("mmsh_length [" + std::to_string(judged) + "] is out of range");
        EXPECT_EQ(emp.process.poll(), std::nullopt);
        emp.kill();
    }
}

TEST(Framing, MessagesThatWaitTogetherAreServedInOrderWithAllTheirLines) {
    Blade blade;
    RunningEmp emp(blade);
    emp.startQuietly();
    Bytes all;
    for (U8_t i = 0; i < 200; i++) {
        all = joined({all, eventMessage(18, Bytes(i, i))});
    }
    emp.msm.send(all);
    for (U32_t id = 1; id <= 200; id++) {
        Bytes copy = emp.msm.receive();
        EXPECT_EQ(number32(copy, 200), id);
        EXPECT_EQ(Bytes(copy.begin() + 216, copy.end()), Bytes(id - 1, static_cast<U8_t>(id - 1)));
    }
    EXPECT_EQ(emp.log(18, {}), 201U);
    emp.process.waitForOutput("Tag Event with new Sequence ID [201]");
    std::string output = emp.process.output();
    size_t at = 0;
    for (int id = 1; id <= 201; id++) {
        for (const char* text : {"main(): The socket to MSM is selected.\n",
                                 "empProcEventMmsgMsg(): Receive a MMSG to the Event Manager\n"}) {
            at = output.find(text, at);
            ASSERT_NE(at, std::string::npos) << text << id;
        }
        at = output.find("Sequence ID [" + std::to_string(id) + "]\n", at);
        ASSERT_NE(at, std::string::npos) << id;
    }
}

TEST(Framing, PeerThatGoesWithMessagesWaitingHasThemServedFirst) {
    Blade blade;
    RunningEmp emp(blade);
    emp.startQuietly();
    Bytes event = eventMessage(18, {1});
    emp.msm.send(joined({bareMessage(4), bareMessage(6), Bytes(event.begin(), event.begin() + 9)}));
    emp.msm.finishSending();
    emp.process.waitForOutput("EMP does not support Get Event Archiver Message.");
    emp.process.waitForOutput("EMP shall not receive Get Event Archiver Message");
    EXPECT_EQ(emp.process.poll(), std::nullopt) << "a part of a header is no error";
    emp.kill();
}

/** Sends what the socket takes. */
void sendSome(MmsgClient& client, const Bytes& bytes) {
    size_t sent = 0;
    while (sent < bytes.size()) {
        ssize_t result = send(client.descriptor(), bytes.data() + sent, bytes.size() - sent,
                              MSG_DONTWAIT | MSG_NOSIGNAL);
        if (result <= 0) {
            return;
        }
        sent += static_cast<size_t>(result);
    }
}

TEST(Framing, GarbageHasADefinedEnd) {
    std::mt19937 random(20061121);
    for (int round = 0; round < 12; round++) {
        Blade blade;
        RunningEmp emp(blade);
        emp.startQuietly();
        Bytes garbage(60'000);
        for (U8_t& byte : garbage) {
            byte = static_cast<U8_t>(random());
        }
        // Lengths of every kind at the front, so that the garbage behind is met in many ways.
        garbage[10] = static_cast<U8_t>(round % 3 == 0 ? 0 : round);
        sendSome(emp.msm, garbage);
        waitUntil([&] { return emp.process.poll().has_value(); }, std::chrono::milliseconds(100));
        emp.msm.close();
        waitUntil([&] { return emp.process.poll().has_value(); }, std::chrono::milliseconds(100));
        if (emp.process.poll().has_value()) {
            EXPECT_EQ(*emp.process.poll(), diedOf(SIGABRT));
            EXPECT_NE(emp.process.output().find("Critical Error"), std::string::npos);
        } else {
            emp.kill();
        }
        EXPECT_EQ(errorsOf(emp.process), "") << "no sanitizer's report";
    }
}

// --- Many messages

/** Random messages within the rules of framing. */
class RandomMessages {
  public:
    Bytes next() {
        Bytes message(length());
        for (U8_t& byte : message) {
            byte = static_cast<U8_t>(random_());
        }
        message[10] = static_cast<U8_t>(message.size() >> 8);
        message[11] = static_cast<U8_t>(message.size());
        if (oneOf(4) != 0) {
            message[8] = 14;
        }
        if (oneOf(4) != 0) {
            message[20] |= 0x08;
        }
        if (oneOf(8) != 0) {
            setOpcode(message);
        }
        if (oneOf(4) != 0) {
            message[16] = static_cast<U8_t>(oneOf(40));
        }
        return message;
    }

  private:
    U32_t oneOf(U32_t count) { return static_cast<U32_t>(random_()) % count; }

    size_t length() {
        switch (oneOf(10)) {
        case 0:
            return 64;
        case 1:
            return 64 + oneOf(160);
        case 2:
            return 4064;
        case 3:
            return 4065 + oneOf(4000);
        default:
            return 64 + oneOf(1000);
        }
    }

    void setOpcode(Bytes& message) {
        // Settings would make it connect to addresses of chance.
        constexpr U8_t types[] = {0, 1, 2, 4, 5, 6, 7, 8};
        message[12] = 8;
        message[13] = message[14] = 0;
        message[15] = types[oneOf(sizeof(types))];
        if (message[15] == 2 && message.size() >= 68 && oneOf(4) != 0) {
            message[64] = message[65] = message[66] = 0;
            message[67] = static_cast<U8_t>(oneOf(7));
        }
    }

    std::mt19937 random_{4711};
};

/** Reads up to the answer to a status request that carried @p handle. */
void readUpToAnswer(RunningEmp& emp, U32_t handle) {
    for (;;) {
        Bytes message = emp.msm.receive();
        const MMCH_t& header = headerOf(message);
        if (header.opcode.request.type == 5 && header.handle == handle) {
            return;
        }
    }
}

TEST(Framing, ThousandsOfRandomMessagesThenAGoodEvent) {
    Blade blade;
    RunningEmp emp(blade);
    emp.startQuietly();
    RandomMessages messages;
    for (U32_t batch = 0; batch < 300; batch++) {
        // What is under way in both directions stays below what the sockets hold.
        for (int i = 0; i < 15; i++) {
            emp.msm.send(messages.next());
        }
        U32_t handle = 0xABCD0000U | batch;
        emp.msm.send(makeMmsg({.type = 5, .requestor = 18, .local = {27}, .handle = handle}));
        readUpToAnswer(emp, handle);
        ASSERT_EQ(emp.process.poll(), std::nullopt);
    }
    Bytes data = {'g', 'o', 'o', 'd', ' ', 'e', 'v', 'e', 'n', 't'};
    U32_t id = emp.log(18, data);
    EXPECT_GT(id, 100U) << "many of the random ones were events";
    EXPECT_NE(blade.log().find(std::string(data.begin(), data.end())), std::string::npos);
}

} // namespace
