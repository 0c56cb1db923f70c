/** Logging events: the messages and the files that become of them. */
#include "mpu_event_support.h"

#include "altEventLog.h"

#include <latch>
#include <thread>

namespace {

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

// --- Leaving

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
