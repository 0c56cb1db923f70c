// The test plays the message switch and the event manager behind it.
#include "mpu/event.h"

#include "failing_call.h"
#include "lib_test_support.h"
#include "mmsg_client.h"
#include "mpu_params.h"
#include "worked_example.h"

#include "altEventLog.h"
#include "emp_mesgs.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <ctime>
#include <latch>
#include <optional>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>

static FailingCall failingSend;
static size_t sendLimit; ///< bytes that a send takes at most; 0: all

extern "C" ssize_t __real_send(int fd, const void* data, size_t size, int flags);
extern "C" ssize_t __wrap_send(int fd, const void* data, size_t size, int flags) {
    if (failingSend.fails()) {
        return -1;
    }
    return __real_send(fd, data, sendLimit > 0 ? std::min(size, sendLimit) : size, flags);
}

namespace {

using mpu::pMpuParams;
using support::Bytes;
using support::MmsgClient;
using support::MmsgListener;

constexpr int PATIENT = 30'000; ///< for answers that come
constexpr int SHORT = 30;       ///< for answers that do not

const char FAN[] = "fan 3 stopped";

MPU_Event_t eventOf(const void* data, size_t length) {
    return {MPU_E_EVENT_WARNING, MPU_E_EVENT_ENVIRONMENTAL, 1, 7, data, length};
}
const MPU_Event_t fanEvent = eventOf(FAN, 13);

class MpuEvent : public testing::Test {
  protected:
    MpuEvent() {
        failingSend = {};
        sendLimit = 0;
        pMpuParams = nullptr;
        int id = shmget(key, MPU_PARAMS_SIZE, IPC_CREAT | IPC_EXCL | 0600);
        params = static_cast<MPU_PARAMS_t*>(shmat(id, nullptr, 0));
        params->version = MPU_PARAMS_VERSION;
        params->slotId = 1;
        strcpy(reinterpret_cast<char*>(params->chassisSN), "ENC-0001");
        strcpy(reinterpret_cast<char*>(params->serialStr), "BLADE-A");
        strcpy(params->mmsgDirectory, directory.path().c_str());
        strcpy(params->nvramDirectory, directory.path().c_str());
    }
    ~MpuEvent() override {
        MPU_closeEventLog(log);
        shmdt(params);
    }

    void listen() { listener.emplace(directory / "environ"); }
    void open(int waitMs = PATIENT) {
        log = MPU_openEventLog(key, 26, waitMs);
        ASSERT_NE(log, nullptr);
    }
    void listenAndOpen(int waitMs = PATIENT) {
        listen();
        open(waitMs);
        switchEnd.emplace(listener->accept());
    }
    int logFan() { return MPU_logEvent(log, &fanEvent); }
    int closeLog() {
        int status = MPU_closeEventLog(log);
        log = nullptr;
        return status;
    }

    /** The answer to a status request. */
    static Bytes answerTo(const Bytes& request) {
        support::MmsgFields fields{
            .type = 5, .requestor = 27, .cont = 0x40, .local = {26}, .returnCode = 1};
        fields.handle = support::headerOf(request).handle;
        return support::makeMmsg(fields, Bytes(20));
    }

    /** Reads up to the next status request and answers it. @return the messages in front of it */
    std::vector<Bytes> answerStatus() {
        std::vector<Bytes> before;
        for (;;) {
            Bytes message = switchEnd->receive();
            if (U32_t{support::headerOf(message).opcode.request.type} == 5) {
                switchEnd->send(answerTo(message));
                return before;
            }
            before.push_back(message);
        }
    }

    /** Alternate event log files in the order of their data. */
    std::vector<std::string> files() const {
        std::vector<std::string> contents;
        if (std::filesystem::exists(directory / "aelfiles")) {
            for (const auto& entry : std::filesystem::directory_iterator(directory / "aelfiles")) {
                contents.push_back(readFile(entry.path().string()));
            }
        }
        std::ranges::sort(contents, {}, [](const std::string& file) { return file.substr(160); });
        return contents;
    }

    TempDirectory directory;
    PrivateKey key;
    MPU_PARAMS_t* params;
    std::optional<MmsgListener> listener;
    std::optional<MmsgClient> switchEnd;
    MPU_EventLog_t* log = nullptr;
};

// --- Opening

TEST_F(MpuEvent, RefusesWhatIsOutOfRange) {
    for (auto [endpoint, wait] :
         {std::pair{34, 100}, {255, 100}, {27, 100}, {26, 0}, {26, -1}, {26, 60'001}}) {
        errno = 0;
        EXPECT_EQ(MPU_openEventLog(key, static_cast<uint8_t>(endpoint), wait), nullptr);
        EXPECT_EQ(errno, EINVAL);
    }
}

TEST_F(MpuEvent, MissingParameterBlockIsSaidAndTheProcessesOwnStays) {
    pMpuParams = params;
    PrivateKey other(1);
    std::string errors = errorsOf([&] {
        EXPECT_EQ(MPU_openEventLog(other, 26, 100), nullptr);
        EXPECT_EQ(errno, ENOENT);
    });
    EXPECT_NE(errors, "");
    EXPECT_EQ(pMpuParams, params);
    open();
    EXPECT_EQ(pMpuParams, params);
    closeLog();
    EXPECT_EQ(U32_t{params->slotId}, 1U);
    pMpuParams = nullptr;
}

TEST_F(MpuEvent, DirectoryThatNoSocketsPathHoldsIsRefused) {
    // 107 characters with the endpoint's name are the most.
    memset(params->mmsgDirectory, 'd', 99);
    params->mmsgDirectory[0] = '/';
    params->mmsgDirectory[99] = '\0';
    open();
    closeLog();
    params->mmsgDirectory[99] = 'd';
    params->mmsgDirectory[100] = '\0';
    EXPECT_EQ(MPU_openEventLog(key, 26, 100), nullptr);
    EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST_F(MpuEvent, DescriptorsAreGivenBack) {
    listen();
    int before = openDescriptors();
    open();
    EXPECT_EQ(openDescriptors(), before + 1);
    EXPECT_EQ(closeLog(), MPU_E_EVENT_SENT);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(MPU_closeEventLog(nullptr), MPU_E_EVENT_SENT);
}

// --- Logging

TEST_F(MpuEvent, MessageIsTheWorkedExample) {
    listenAndOpen();
    EXPECT_EQ(logFan(), MPU_E_EVENT_SENT);
    Bytes message = switchEnd->receive();
    EXPECT_EQ(message, workedExample("event message"));
    switchEnd->close();
}

TEST_F(MpuEvent, LargestDataIsSentAndOneByteMoreIsRefused) {
    listenAndOpen();
    Bytes data(MPU_EVENT_DATA_MAX + 1, 0xA5);
    MPU_Event_t event = eventOf(data.data(), MPU_EVENT_DATA_MAX);
    EXPECT_EQ(MPU_logEvent(log, &event), MPU_E_EVENT_SENT);
    EXPECT_EQ(switchEnd->receive().size(), 4064U);
    event.length++;
    EXPECT_EQ(MPU_logEvent(log, &event), MPU_E_EVENT_FAILED);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(MPU_leaveEvent(log, &event), MPU_E_EVENT_FAILED);
    switchEnd->close();
}

TEST_F(MpuEvent, NothingIsNotAnEvent) {
    listenAndOpen();
    MPU_Event_t event = eventOf(nullptr, 1);
    EXPECT_EQ(MPU_logEvent(log, &event), MPU_E_EVENT_FAILED);
    EXPECT_EQ(MPU_logEvent(log, nullptr), MPU_E_EVENT_FAILED);
    EXPECT_EQ(MPU_logEvent(nullptr, &fanEvent), MPU_E_EVENT_FAILED);
    EXPECT_EQ(MPU_confirmEvents(nullptr), MPU_E_EVENT_FAILED);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(closeLog(), MPU_E_EVENT_SENT);
}

TEST_F(MpuEvent, MessageThatGoesOutInPartsArrivesWhole) {
    listenAndOpen();
    sendLimit = 10;
    EXPECT_EQ(logFan(), MPU_E_EVENT_SENT);
    EXPECT_EQ(switchEnd->receive(), workedExample("event message"));
    EXPECT_EQ(failingSend.calls, 23);
    switchEnd->close();
}

TEST_F(MpuEvent, SwitchThatTakesNothingCannotHoldTheCaller) {
    listenAndOpen(SHORT);
    // The socket says that it is ready each time: the deadline must end this, not poll().
    failingSend.failAll(EAGAIN);
    EXPECT_EQ(logFan(), MPU_E_EVENT_IN_FILE);
    EXPECT_EQ(files().size(), 1U);
}

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

TEST_F(MpuEvent, FileIsTheRecordOfTheEvent) {
    open();
    EXPECT_EQ(logFan(), MPU_E_EVENT_IN_FILE);
    ASSERT_EQ(files().size(), 1U);
    std::string file = files()[0];
    Bytes record = workedExample("record");
    ASSERT_EQ(file.size(), record.size());
    auto& header = *reinterpret_cast<EmpEvRecord_t*>(file.data());
    EXPECT_EQ(U32_t{header.evRdCRCChecksum}, computeCRC32(file.data() + 8, 165));
    // But for the time, the id and the checksum of both.
    auto& expected = *reinterpret_cast<EmpEvRecord_t*>(record.data());
    expected.evTime = header.evTime;
    expected.evSequenceId = 0;
    expected.evRdCRCChecksum = header.evRdCRCChecksum;
    EXPECT_EQ(file, std::string(record.begin(), record.end()));
}

TEST_F(MpuEvent, EventWithoutDataIsLeftWithOneZeroByte) {
    open();
    MPU_Event_t event = eventOf(nullptr, 0);
    EXPECT_EQ(MPU_leaveEvent(log, &event), MPU_E_EVENT_IN_FILE);
    ASSERT_EQ(files().size(), 1U);
    EXPECT_EQ(files()[0].substr(152, 2), std::string("\0\1", 2));
    EXPECT_EQ(files()[0].substr(160), std::string(1, '\0'));
}

// As a signal handler does, while another thread prints or was stopped in the middle of it.
TEST_F(MpuEvent, LeavingThatFailsIsSaidWhileTheStandardStreamsAreHeld) {
    strcpy(params->nvramDirectory, "/nowhere");
    open();
    std::string said = errorsOf([&] {
        std::latch held(1);
        std::latch done(1);
        std::thread printer([&] {
            flockfile(stdout);
            flockfile(stderr);
            held.count_down();
            done.wait();
            funlockfile(stderr);
            funlockfile(stdout);
        });
        held.wait();
        alarm(20);
        int status = MPU_leaveEvent(log, &fanEvent);
        int error = errno;
        alarm(0);
        done.count_down();
        printer.join();
        EXPECT_EQ(status, MPU_E_EVENT_FAILED);
        EXPECT_EQ(error, EIO);
    });
    EXPECT_EQ(said, "openAELFileFd(): Unable to make directory /nowhere/aelfiles\n");
}

TEST_F(MpuEvent, LeavingIntoAFullFileSystemFailsAndIsSaid) {
    open();
    struct rlimit before;
    getrlimit(RLIMIT_FSIZE, &before);
    const struct rlimit full = {170, before.rlim_max};
    signal(SIGXFSZ, SIG_IGN);
    std::string said = errorsOf([&] {
        setrlimit(RLIMIT_FSIZE, &full);
        EXPECT_EQ(MPU_leaveEvent(log, &fanEvent), MPU_E_EVENT_FAILED);
        setrlimit(RLIMIT_FSIZE, &before);
    });
    EXPECT_EQ(said.substr(0, 57), "*** An error occurred writing to Alternate Event Log\n    ");
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

// --- C++

TEST_F(MpuEvent, ClassClosesItselfAndMoves) {
    listen();
    {
        mpu::EventLog first(key, 26, PATIENT);
        ASSERT_TRUE(first);
        switchEnd.emplace(listener->accept());
        mpu::EventLog second(std::move(first));
        EXPECT_EQ(second.log(fanEvent), MPU_E_EVENT_SENT);
        std::thread manager([this] { EXPECT_EQ(answerStatus().size(), 1U); });
        EXPECT_EQ(second.close(), MPU_E_EVENT_SENT);
        manager.join();
        EXPECT_FALSE(second);
    }
    EXPECT_FALSE(mpu::EventLog(key, 34));
    switchEnd->waitForEnd();
}

} // namespace
