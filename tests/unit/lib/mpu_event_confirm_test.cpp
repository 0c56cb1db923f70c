/** Confirming events: what is known to be stored, and what becomes of the rest. */
#include "mpu_event_support.h"

#include <chrono>
#include <ctime>
#include <functional>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>

namespace {

// --- Confirming

TEST_F(MpuEvent, ConfirmationIsTheAnswerToItsOwnRequest) {
    listenAndOpen();
    ASSERT_EQ(logFan(), MPU_E_EVENT_SENT);
    std::thread manager([this] {
        EXPECT_EQ(switchEnd->receive(), workedExample("event message"));
        Bytes right = answerTo(switchEnd->receive());
        Bytes other = right;
        support::headerOf(other).handle = support::headerOf(right).handle + 1;
        Bytes request = right;
        support::headerOf(request).mmsg_cont = 0;
        for (const Bytes& message : {other, request, support::makeMmsg({.type = 1}, Bytes(4000))}) {
            switchEnd->send(message);
        }
        switchEnd->send(Bytes(right.begin(), right.begin() + 70));
        switchEnd->send(Bytes(right.begin() + 70, right.end()));
    });
    EXPECT_EQ(MPU_confirmEvents(log), MPU_E_EVENT_SENT);
    manager.join();
    EXPECT_TRUE(files().empty());
    // Nothing is open any more, so nobody is asked.
    EXPECT_EQ(closeLog(), MPU_E_EVENT_SENT);
    EXPECT_THROW(switchEnd->receive(), std::exception);
}

TEST_F(MpuEvent, UnansweredEventsAreLeftInFiles) {
    listenAndOpen(SHORT);
    for (char letter : {'a', 'b', 'c'}) {
        MPU_Event_t event = eventOf(&letter, 1);
        ASSERT_EQ(MPU_logEvent(log, &event), MPU_E_EVENT_SENT);
    }
    EXPECT_EQ(MPU_confirmEvents(log), MPU_E_EVENT_IN_FILE);
    std::vector<std::string> left = files();
    ASSERT_EQ(left.size(), 3U);
    for (size_t at = 0; at < 3; at++) {
        EXPECT_EQ(left[at].substr(160), std::string(1, static_cast<char>('a' + at)));
    }
    // Said once; the next one goes to a file at once, without another wait.
    EXPECT_EQ(MPU_confirmEvents(log), MPU_E_EVENT_SENT);
    EXPECT_EQ(logFan(), MPU_E_EVENT_IN_FILE);
    EXPECT_EQ(files().size(), 4U);
}

TEST_F(MpuEvent, CopiesThatFillTheirSpaceAreConfirmedUnasked) {
    listenAndOpen();
    Bytes data(MPU_EVENT_DATA_MAX);
    MPU_Event_t event = eventOf(data.data(), data.size());
    size_t received = 0;
    std::thread manager([&] { received = answerStatus().size(); });
    for (int count = 0; count < 9; count++) {
        EXPECT_EQ(MPU_logEvent(log, &event), MPU_E_EVENT_SENT);
    }
    manager.join();
    EXPECT_EQ(received, 8U); // 8 * 4064 <= 32768 < 9 * 4064
    switchEnd->close();
    listener.reset();
    EXPECT_EQ(closeLog(), MPU_E_EVENT_IN_FILE);
    EXPECT_EQ(files().size(), 1U);
}

// --- Losing and finding

TEST_F(MpuEvent, LostSwitchLeavesTheUnconfirmedAndConfirmSaysSo) {
    listenAndOpen();
    ASSERT_EQ(logFan(), MPU_E_EVENT_SENT);
    switchEnd->close();
    listener.reset();
    EXPECT_EQ(logFan(), MPU_E_EVENT_IN_FILE);
    EXPECT_EQ(files().size(), 2U);
    EXPECT_EQ(MPU_confirmEvents(log), MPU_E_EVENT_IN_FILE);
    EXPECT_EQ(MPU_confirmEvents(log), MPU_E_EVENT_SENT);
}

TEST_F(MpuEvent, ReconnectsOnceTheEventManagerAnswers) {
    open();
    ASSERT_EQ(logFan(), MPU_E_EVENT_IN_FILE);
    listen();
    std::thread manager([this] {
        switchEnd.emplace(listener->accept());
        EXPECT_TRUE(answerStatus().empty());
        EXPECT_EQ(switchEnd->receive(), workedExample("event message"));
        EXPECT_TRUE(answerStatus().empty());
    });
    size_t left = 1;
    while (logFan() == MPU_E_EVENT_IN_FILE) {
        left++;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_EQ(MPU_confirmEvents(log), MPU_E_EVENT_SENT);
    manager.join();
    EXPECT_EQ(files().size(), left);
}

TEST_F(MpuEvent, LateAnswerBringsTheEventManagerBack) {
    listenAndOpen(SHORT);
    ASSERT_EQ(logFan(), MPU_E_EVENT_SENT);
    ASSERT_EQ(MPU_confirmEvents(log), MPU_E_EVENT_IN_FILE);
    answerStatus();
    EXPECT_EQ(logFan(), MPU_E_EVENT_SENT);
    switchEnd->close();
}

TEST_F(MpuEvent, LengthThatNoMessageHasEndsTheConnection) {
    for (U16_t length : {U16_t{63}, U16_t{4065}}) {
        listenAndOpen();
        Bytes bad = support::makeMmsg({.type = 5});
        support::headerOf(bad).mmsg_length = length;
        switchEnd->send(bad);
        listener.reset();
        std::filesystem::remove(directory / "environ");
        EXPECT_EQ(logFan(), MPU_E_EVENT_IN_FILE);
        switchEnd->waitForEnd();
        closeLog();
    }
}

TEST_F(MpuEvent, PeerThatNeverPausesCannotHoldTheCaller) {
    listenAndOpen(SHORT);
    ASSERT_EQ(logFan(), MPU_E_EVENT_SENT);
    std::jthread chatter([this](std::stop_token stop) {
        Bytes message = support::makeMmsg({.type = 1}, Bytes(4000));
        while (!stop.stop_requested()) {
            if (__real_send(switchEnd->descriptor(), message.data(), message.size(),
                            MSG_NOSIGNAL | MSG_DONTWAIT) < 0) {
                std::this_thread::yield();
            }
        }
    });
    EXPECT_EQ(MPU_confirmEvents(log), MPU_E_EVENT_IN_FILE);
}

TEST_F(MpuEvent, EventThatCannotBeLeftIsAFailure) {
    listenAndOpen();
    ASSERT_EQ(logFan(), MPU_E_EVENT_SENT);
    strcpy(params->nvramDirectory, "/nowhere/at/all");
    switchEnd->close();
    listener.reset();
    std::string output = outputOf([&] {
        errorsOf([&] {
            errno = 0;
            EXPECT_EQ(logFan(), MPU_E_EVENT_FAILED);
            EXPECT_EQ(errno, EIO);
            errno = 0;
            EXPECT_EQ(MPU_confirmEvents(log), MPU_E_EVENT_FAILED);
            EXPECT_EQ(errno, EIO);
        });
    });
    EXPECT_EQ(MPU_confirmEvents(log), MPU_E_EVENT_SENT);
}

// --- An event manager that is another one when it answers

class OtherEventManager : public MpuEvent {
  protected:
    /** What another process's coming and going leaves behind. */
    void changeUse() {
        pid_t other = fork();
        if (other == 0) {
            shmat(shmget(key, MPU_PARAMS_SIZE, 0600), nullptr, SHM_RDONLY);
            _exit(0);
        }
        EXPECT_EQ(waitpid(other, nullptr, 0), other);
    }

    /** The answer to an inquiry: the event of a message, as it is stored. */
    Bytes stored(const Bytes& inquiry, const Bytes& message, U32_t id, U32_t time) const {
        Bytes body(message.begin() + MMCH_SIZE, message.end());
        auto& header = *reinterpret_cast<EmpEvLogHeader_t*>(body.data());
        header.evSource = support::headerOf(message).requestor;
        header.evStructLength = static_cast<U16_t>(body.size() - EMP_EVENT_HEADER_SIZE);
        header.evInstanceNumber = 7;
        header.evSequenceId = id;
        header.evTime = time;
        support::MmsgFields fields{
            .type = 2, .requestor = 27, .cont = 0x40, .local = {26}, .returnCode = 1};
        fields.handle = support::headerOf(inquiry).handle;
        return support::makeMmsg(fields, body);
    }

    /** Answers so many inquiries, no more and no others, from a log of these messages: ids from 100
     * on.
     */
    void answerInquiries(size_t count, const std::vector<Bytes>& logged, U32_t time = 0xFFFFFFFF) {
        for (; count > 0; count--) {
            Bytes message = switchEnd->receive();
            ASSERT_EQ(U32_t{support::headerOf(message).opcode.request.type}, 2U);
            const auto& inquiry =
                *reinterpret_cast<const EmpEvInquiryMsg_t*>(message.data() + MMCH_SIZE);
            U32_t id = inquiry.evSeqIdInquiry;
            if (inquiry.evInquiryType == EMP_E_INQUIRY_TYPE_EXACT) {
                EXPECT_STREQ(reinterpret_cast<const char*>(inquiry.evEnclosureId), "ENC-0001");
                EXPECT_STREQ(reinterpret_cast<const char*>(inquiry.evBladeId), "BLADE-A");
                EXPECT_EQ(U32_t{inquiry.evSlotId}, 1U);
                EXPECT_EQ(U32_t{inquiry.evInstanceNumber}, 7U);
            } else {
                bool first = inquiry.evInquiryType == EMP_E_INQUIRY_TYPE_FIRST;
                id = 100 + (first ? 0 : static_cast<U32_t>(logged.size()) - 1);
            }
            ASSERT_LT(id - 100, logged.size()) << "nobody else may be asked";
            switchEnd->send(stored(message, logged.at(id - 100), id, time));
        }
    }

    int logLetter(char letter) {
        MPU_Event_t event = eventOf(&letter, 1);
        return MPU_logEvent(log, &event);
    }

    static Bytes foreign() { return support::makeMmsg({.type = 1, .requestor = 20}, Bytes(160)); }
};

TEST_F(OtherEventManager, EventsThatAreInItsLogAreConfirmed) {
    listenAndOpen();
    logLetter('a');
    logLetter('b');
    changeUse();
    std::thread manager([this] {
        std::vector<Bytes> sent = answerStatus();
        answerInquiries(4, {foreign(), sent[0], foreign(), sent[1]});
    });
    EXPECT_EQ(MPU_confirmEvents(log), MPU_E_EVENT_SENT);
    manager.join();
    EXPECT_TRUE(files().empty());
}

TEST_F(OtherEventManager, MissingEventsAreSentAgain) {
    listenAndOpen();
    for (char letter : {'a', 'b', 'b', 'c'}) {
        logLetter(letter);
    }
    changeUse();
    std::thread manager([this] {
        std::vector<Bytes> sent = answerStatus();
        ASSERT_EQ(sent.size(), 4U);
        answerInquiries(3, {foreign(), sent[0], sent[1]});
        std::vector<Bytes> again = answerStatus();
        EXPECT_EQ(again, (std::vector<Bytes>{sent[1], sent[3]}));
    });
    EXPECT_EQ(MPU_confirmEvents(log), MPU_E_EVENT_SENT);
    manager.join();
    EXPECT_TRUE(files().empty());
}

TEST_F(OtherEventManager, WhatIsMissingTwiceIsLeftInFiles) {
    listenAndOpen();
    logLetter('a');
    changeUse();
    std::thread manager([this] {
        answerStatus();
        answerInquiries(2, {foreign()});
        EXPECT_EQ(switchEnd->receive().back(), 'a');
        changeUse();
        switchEnd->send(answerTo(switchEnd->receive()));
        answerInquiries(2, {foreign()});
    });
    EXPECT_EQ(MPU_confirmEvents(log), MPU_E_EVENT_IN_FILE);
    manager.join();
    ASSERT_EQ(files().size(), 1U);
    EXPECT_EQ(files()[0].substr(160), "a");
}

TEST_F(OtherEventManager, EqualEventOfAnEarlierConfirmationIsNotTakenForAMissingOne) {
    listenAndOpen();
    logLetter('a');
    std::thread manager([this] {
        std::vector<Bytes> sent = answerStatus();
        std::vector<Bytes> again = answerStatus();
        answerInquiries(2, sent, static_cast<U32_t>(time(nullptr) - 1));
        EXPECT_EQ(answerStatus(), again);
    });
    EXPECT_EQ(MPU_confirmEvents(log), MPU_E_EVENT_SENT);
    logLetter('a');
    changeUse();
    EXPECT_EQ(MPU_confirmEvents(log), MPU_E_EVENT_SENT);
    manager.join();
}

TEST_F(OtherEventManager, OneThatAnswersNoInquiryGetsTheEventsAgain) {
    listenAndOpen(SHORT);
    logLetter('a');
    changeUse();
    std::thread manager([this] { answerStatus(); });
    EXPECT_EQ(MPU_confirmEvents(log), MPU_E_EVENT_IN_FILE) << "the time is over";
    manager.join();
    EXPECT_EQ(files().size(), 1U);
}

// --- A child after fork()

class ForkedEventLog : public OtherEventManager {
  protected:
    static pid_t inChild(const std::function<bool()>& body) {
        const pid_t child = fork();
        if (child == 0) {
            _exit(body() ? 0 : 1);
        }
        return child;
    }

    static void expectGood(pid_t child) {
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    }

    /** The parent's event is the only one of its link, and the first that it asks about. */
    void expectParentConfirms() {
        std::thread manager([this] {
            const std::vector<Bytes> sent = answerStatus();
            EXPECT_EQ(sent, std::vector<Bytes>{workedExample("event message")});
            answerInquiries(2, sent); // a process has left the block
        });
        EXPECT_EQ(MPU_confirmEvents(log), MPU_E_EVENT_SENT);
        manager.join();
        EXPECT_TRUE(files().empty());
    }
};

TEST_F(ForkedEventLog, ChildThatClosesItLetsGoOfItAlone) {
    listenAndOpen();
    ASSERT_EQ(logFan(), MPU_E_EVENT_SENT);
    expectGood(inChild([this] { return closeLog() == MPU_E_EVENT_SENT; }));
    expectParentConfirms();
}

TEST_F(ForkedEventLog, ChildThatUsesItBeginsAnewOnALinkOfItsOwn) {
    listenAndOpen();
    ASSERT_EQ(logFan(), MPU_E_EVENT_SENT);
    const pid_t child = inChild([this] {
        return MPU_confirmEvents(log) == MPU_E_EVENT_SENT && logLetter('c') == MPU_E_EVENT_SENT &&
               closeLog() == MPU_E_EVENT_SENT;
    });
    MmsgClient parents = std::move(*switchEnd);
    switchEnd.emplace(listener->accept());
    const std::vector<Bytes> sent = answerStatus();
    ASSERT_EQ(sent.size(), 1U) << "without its parent's";
    EXPECT_EQ(sent[0].back(), 'c');
    expectGood(child);
    switchEnd.emplace(std::move(parents));
    expectParentConfirms();
}

TEST_F(ForkedEventLog, ChildOfASwitchThatIsAwayLeavesFilesOfItsOwnEventsOnly) {
    listenAndOpen();
    ASSERT_EQ(logFan(), MPU_E_EVENT_SENT);
    listener.reset();
    std::filesystem::remove(directory / "environ");
    expectGood(inChild([this] {
        return logLetter('c') == MPU_E_EVENT_IN_FILE && closeLog() == MPU_E_EVENT_SENT;
    }));
    ASSERT_EQ(files().size(), 1U);
    EXPECT_EQ(files()[0].substr(160), "c");
    std::filesystem::remove_all(directory / "aelfiles");
    expectParentConfirms();
}

} // namespace
