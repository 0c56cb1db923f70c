#include "serve_bench.h"

#include "archiver/pending.h"
#include "diag/output.h"
#include "emp_mesgs.h"
#include "fixed_clock.h"
#include "fixed_time_stamp.h"
#include "loop/wait.h"
#include "serve/batch.h"
#include "serve/pass.h"
#include "startup/event_log_file.h"
#include "store/window.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/select.h>

using support::Bytes;

namespace {

/** The life that goes on in this child, and what it leaves. */
struct Stage {
    Life life;
    std::string folder; ///< empty: calls go through
    size_t nextBundle = 0;
    int switchEnd = -1;
    int archiverEnd = -1;
    int logWrites = 0;
    size_t sent = 0;
} stage;

void leave(const char* name, const void* bytes, size_t length) {
    std::ofstream file(stage.folder + '/' + name, std::ios::binary | std::ios::app);
    file.write(static_cast<const char*>(bytes), static_cast<std::streamsize>(length));
}

void noteCall(char call) {
    if (stage.nextBundle > 0) {
        leave("calls", &call, 1);
    }
}

void drain(int fd, const char* name) {
    char piece[65'536];
    ssize_t got = 0;
    while (fd >= 0 && (got = recv(fd, piece, sizeof(piece), MSG_DONTWAIT)) > 0) {
        leave(name, piece, static_cast<size_t>(got));
    }
}

[[noreturn]] void endOfLife() {
    empFlushOutput();
    drain(stage.archiverEnd, "archived");
    leave("state", &empControl, sizeof(empControl));
    leave("state", eventEntryDatabase, sizeof(eventEntryDatabase));
    leave("state", eventEntryWorkSpace, EMP_WORK_SPACE_SIZE);
    leave("state", &empLogFilePosition, sizeof(empLogFilePosition));
    U32_t newest = std::max(empControl.empWrite, 1000U) - 1000U;
    leave("state", empWindowAt(newest), std::min(empWindowAvailable(newest), 1000U));
    _exit(0);
}

} // namespace

extern "C" ssize_t __real_send(int fd, const void* buffer, size_t length, int flags);

namespace {

void nextBundle() {
    if (stage.nextBundle == stage.life.bundles.size()) {
        endOfLife();
    }
    const Bytes& bundle = stage.life.bundles[stage.nextBundle++];
    __real_send(stage.switchEnd, bundle.data(), bundle.size(), 0);
}

std::string contentOf(const std::string& path) {
    std::error_code missing;
    auto size = static_cast<size_t>(std::filesystem::file_size(path, missing));
    std::string content(missing ? 0 : size, '\0');
    std::ifstream(path, std::ios::binary)
        .read(content.data(), static_cast<std::streamsize>(content.size()));
    return content;
}

} // namespace

extern "C" {

ssize_t __wrap_send(int fd, const void* buffer, size_t length, int flags) {
    if (stage.folder.empty() || fd != empControl.socketFdMSM) {
        return __real_send(fd, buffer, length, flags);
    }
    if (stage.life.switchIsSlow && (flags & MSG_DONTWAIT) != 0) {
        errno = EAGAIN;
        return -1;
    }
    noteCall('S');
    size_t takes = stage.life.switchTakes.value_or(SIZE_MAX) - stage.sent;
    if (takes == 0) {
        errno = EPIPE;
        return -1;
    }
    ssize_t result = __real_send(fd, buffer, std::min(length, takes), flags);
    stage.sent += static_cast<size_t>(std::max<ssize_t>(result, 0));
    drain(stage.switchEnd, "copies");
    return result;
}

ssize_t __real_recv(int fd, void* buffer, size_t length, int flags);
ssize_t __wrap_recv(int fd, void* buffer, size_t length, int flags) {
    if (stage.folder.empty() || fd != empControl.socketFdMSM) {
        return __real_recv(fd, buffer, length, flags);
    }
    ssize_t result = __real_recv(fd, buffer, length, flags | MSG_DONTWAIT);
    if (result == -1 && (flags & MSG_DONTWAIT) == 0) {
        nextBundle();
        result = __real_recv(fd, buffer, length, flags);
    }
    return result;
}

/** The loop would wait. */
int __real_select(int count, fd_set* read, fd_set* write, fd_set* other, struct timeval* timeout);
int __wrap_select(int count, fd_set* read, fd_set* write, fd_set* other, struct timeval* timeout) {
    if (stage.folder.empty()) {
        return __real_select(count, read, write, other, timeout);
    }
    nextBundle();
    FD_ZERO(read);
    FD_SET(empControl.socketFdMSM, read);
    FD_ZERO(write);
    return 1;
}

int __real_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol) {
    if (stage.folder.empty()) {
        return __real_socket(domain, type, protocol);
    }
    noteCall('N');
    return -1;
}

/** Stands: however slow the machine is, who gets the processor back has not waited for it. */
int __real_clock_gettime(clockid_t clock, struct timespec* time);
int __wrap_clock_gettime(clockid_t clock, struct timespec* time) {
    if (stage.folder.empty() || clock != CLOCK_MONOTONIC) {
        return __real_clock_gettime(clock, time);
    }
    *time = {};
    return 0;
}

int __wrap_sched_yield() {
    if (stage.life.bundlesComeSoon && stage.nextBundle < stage.life.bundles.size()) {
        nextBundle();
    }
    return 0;
}

ssize_t __real_write(int fd, const void* buffer, size_t length);
ssize_t __wrap_write(int fd, const void* buffer, size_t length) {
    if (fd == STDOUT_FILENO) {
        noteCall('L');
    }
    return __real_write(fd, buffer, length);
}

/** The files that a bug-check leaves need not last. */
int __wrap_fsync(int /*fd*/) {
    return 0;
}

#define WRAP_PWRITE(name, offset_type)                                                             \
    ssize_t __real_##name(int fd, const void* data, size_t length, offset_type offset);            \
    ssize_t __wrap_##name(int fd, const void* data, size_t length, offset_type offset) {           \
        if (stage.folder.empty() || fd != empControl.eventLogFileFd) {                             \
            return __real_##name(fd, data, length, offset);                                        \
        }                                                                                          \
        noteCall('W');                                                                             \
        long takes = stage.life.logTakesUpTo.value_or(LONG_MAX) - static_cast<long>(offset);       \
        if (++stage.logWrites == stage.life.failWriteOnce || takes <= 0) {                         \
            errno = stage.life.logError;                                                           \
            return -1;                                                                             \
        }                                                                                          \
        return __real_##name(fd, data, std::min(length, static_cast<size_t>(takes)), offset);      \
    }
WRAP_PWRITE(pwrite, off_t)
WRAP_PWRITE(pwrite64, off64_t)

} // extern "C"

namespace {

void connectArchiver() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) != 0) {
        abort();
    }
    if (stage.life.archiverTakes != 0) {
        setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &stage.life.archiverTakes, sizeof(int));
    }
    stage.archiverEnd = ends[1];
    empEvMsgPoolInit();
    empControl.socketFdEventArchiver = ends[0];
    empControl.evManagerStatusFlag = EMP_STATUS_FLAG_ARCHIVER;
    empControl.evArchiverSocketState = EMP_E_ARCHIVER_SOCKET_ST_OPEN;
    empControl.empEventArchiverSequenceId = empControl.empSequenceId - 1;
}

void serveForEver(Serve how) {
    for (;;) {
        if (how == Serve::SINGLY || !empServeBatch()) {
            empServePass();
        }
    }
}

} // namespace

ServeTest::ServeTest() {
    support::setText(params_.chassisSN, logimage::ENCLOSURE);
    support::setText(params_.serialStr, logimage::BLADE);
    support::setText(empControl.empEnclosureId, logimage::ENCLOSURE);
    support::setText(empControl.empBladeId, logimage::BLADE);
    memcpy(static_cast<void*>(&fresh_), &empControl, sizeof(fresh_));
}

void ServeTest::start(const logimage::Bytes& log) {
    if (empControl.eventLogFileFd > 2) {
        close(empControl.eventLogFileFd);
    }
    memcpy(static_cast<void*>(&empControl), &fresh_, sizeof(fresh_));
    memset(static_cast<void*>(eventEntryDatabase), 0, sizeof(eventEntryDatabase));
    memset(eventEntryWorkSpace, 0, sizeof(eventEntryWorkSpace));
    putLog(std::string(log.begin(), log.end()));
    support::outputOf([] { empProcessEventLogFile(); });
    log_ = contentOf(directory_.file("kelta_eventlog"));
    while (msmHasData()) {
        msm_.receive();
    }
}

void ServeTest::putLog(const std::string& log) const {
    // In place: a file that is made empty first is written to the disk when it is closed.
    int fd = open(directory_.file("kelta_eventlog").c_str(), O_RDWR | O_CREAT, 0600);
    auto size = static_cast<ssize_t>(log.size());
    EXPECT_EQ(write(fd, log.data(), log.size()), size);
    EXPECT_EQ(ftruncate(fd, size), 0);
    close(fd);
}

Seen ServeTest::live(const Life& life, Serve how) {
    support::TempDirectory folder;
    std::string path = directory_.file("kelta_eventlog");
    putLog(log_);
    ChildEnd end = endOf([&] {
        empBufferOutput();
        stage.life = life;
        stage.switchEnd = msm_.descriptor();
        stage.folder = folder.path();
        empInitSelectSets();
        empControl.selectTimeout = {1, 0};
        if (life.archiver) {
            connectArchiver();
        }
        if (life.reconnectSeconds != 0) {
            empControl.socketAddressEventArchiver.sin_addr.s_addr = 1;
            empControl.socketAddressEventArchiver.sin_port = 1;
            empControl.reconnectTimeout = {life.reconnectSeconds, 0};
        }
        serveForEver(how);
    });
    return {end.signal,
            end.output,
            contentOf(path),
            contentOf(folder.file("copies")),
            contentOf(folder.file("archived")),
            contentOf(folder.file("state")),
            contentOf(folder.file("calls"))};
}

Seen ServeTest::expectSame(const Life& life) {
    Seen singly = live(life, Serve::SINGLY);
    Seen batched = live(life, Serve::IN_BATCHES);
    EXPECT_EQ(batched.signal, singly.signal);
    EXPECT_TRUE(batched.output == singly.output) << "the lines differ";
    EXPECT_TRUE(batched.log == singly.log) << "the log files differ";
    EXPECT_TRUE(batched.copies == singly.copies) << "the copies differ";
    EXPECT_TRUE(batched.archived == singly.archived) << "the archiver got something else";
    EXPECT_TRUE(batched.state == singly.state) << "the states differ";
    EXPECT_TRUE(singly.signal != 0 || !singly.state.empty()) << "no life at all";
    return batched;
}

Bytes event(size_t size, U8_t requestor, U16_t evId) {
    Bytes body(EMP_EVENT_HEADER_SIZE + size);
    for (size_t i = 0; i < body.size(); i++) {
        body[i] = static_cast<U8_t>(i * 7 + size);
    }
    body[150] = static_cast<U8_t>(evId >> 8);
    body[151] = static_cast<U8_t>(evId);
    return support::makeMmsg(
        {.type = EMP_E_MSGS_LOG, .requestor = requestor, .local = {MMSG_E_EPID_EVENTLOGMP}}, body);
}

Bytes events(int count, size_t size) {
    Bytes all;
    for (int i = 0; i < count; i++) {
        all = support::joined({all, event(size)});
    }
    return all;
}
