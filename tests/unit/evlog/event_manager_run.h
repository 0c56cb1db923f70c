/**
 * @file
 * The event manager's own scan and appends, run in a child on the bytes of a log.
 */
#ifndef EVENT_MANAGER_RUN_H
#define EVENT_MANAGER_RUN_H

#include "evlog/evlog.h"

#include "diag/debug_line.h"
#include "requests/inquiry.h"
#include "state/control.h"
#include "store/append.h"
#include "store/scan.h"
#include "temp_directory.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <optional>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace test {

constexpr U32_t EVENTS_MAX = 520; // of the largest: once round and on

inline EvlogIdentity_t identityOf(const std::string& enclosure, U32_t slot) {
    EvlogIdentity_t identity = {.enclosureId = {}, .slotId = slot};
    memcpy(identity.enclosureId, enclosure.data(), enclosure.size());
    return identity;
}

/** In the child: a start, without what comes before and behind the scan. */
inline void start(const std::string& directory, const EvlogIdentity_t& blade) {
    int null = open("/dev/null", O_WRONLY);
    dup2(null, STDOUT_FILENO);
    static MPU_PARAMS_t params;
    memcpy(params.nvramDirectory, directory.data(), directory.size());
    oMpuParams = &params;
    memcpy(empControl.empEnclosureId, blade.enclosureId, sizeof(blade.enclosureId));
    empControl.empSlotId = blade.slotId;
    empControl.empWrapOver = EMP_E_WRAP_OVER_FALSE;
    empScanEventLogFile();
}

/** In the child: scans, then appends; the number of events that were stored goes to @p to. */
[[noreturn]] inline void work(const std::string& directory, U32_t dataLength,
                              const EvlogIdentity_t& blade, int to) {
    start(directory, blade);
    static U8_t message[65'536];
    auto& header = *reinterpret_cast<EmpEvLogHeader_t*>(message + MMCH_SIZE);
    header.evSource = 28;
    header.evStructLength = static_cast<U16_t>(dataLength);
    for (U32_t stored = 0; stored < EVENTS_MAX; stored++) {
        ssize_t written = write(to, &stored, sizeof(stored));
        header.evSequenceId = empControl.empSequenceId++;
        empSaveEventLogMsgToLogFile(reinterpret_cast<const MMSG_t*>(message));
        if (written < 0) {
            _exit(9);
        }
    }
    ssize_t written = write(to, &EVENTS_MAX, sizeof(EVENTS_MAX));
    _exit(written == static_cast<ssize_t>(sizeof(EVENTS_MAX)) ? 0 : 9);
}

/** @return how many events the event manager stores, at most EVENTS_MAX; nothing when it does not
 * come up */
inline std::optional<U32_t> storedBy(const std::string& bytes, U32_t dataLength,
                                     const EvlogIdentity_t& blade = identityOf("CHASSIS-1", 2)) {
    support::TempDirectory directory;
    support::writeFile(directory.file("kelta_eventlog"), bytes);
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    pid_t child = fork();
    if (child == 0) {
        work(directory.path(), dataLength, blade, ends[1]);
    }
    close(ends[1]);
    std::optional<U32_t> stored;
    for (U32_t number = 0;
         read(ends[0], &number, sizeof(number)) == static_cast<ssize_t>(sizeof(number));) {
        stored = number;
    }
    close(ends[0]);
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) ? WTERMSIG(status) == SIGABRT : WEXITSTATUS(status) == 0);
    return stored;
}

/** @return whether an event manager that has come up with a log outlives an inquiry */
inline bool outlives(U32_t inquiryType, const std::string& bytes,
                     const EvlogIdentity_t& blade = identityOf("CHASSIS-1", 2)) {
    support::TempDirectory directory;
    support::writeFile(directory.file("kelta_eventlog"), bytes);
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends), 0);
    pid_t child = fork();
    if (child == 0) {
        start(directory.path(), blade);
        empControl.socketFdMSM = ends[1];
        static U8_t message[65'536];
        auto& inquiry = *reinterpret_cast<EmpEvInquiryMsg_t*>(message + MMCH_SIZE);
        inquiry.evInquiryType = inquiryType;
        empRcvEventInquiryMsg(reinterpret_cast<MMSG_t*>(message));
        _exit(0);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    close(ends[0]); // by now its answer has come
    close(ends[1]);
    EXPECT_TRUE(WIFSIGNALED(status) ? WTERMSIG(status) == SIGABRT : WEXITSTATUS(status) == 0);
    return !WIFSIGNALED(status);
}

} // namespace test

#endif
