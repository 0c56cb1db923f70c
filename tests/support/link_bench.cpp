#include "link_bench.h"

#include "fixed_time_stamp.h"
#include "store/log_file.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <iterator>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

Bench bench;

// --- Literal bytes -------------------------------------------------------------------------------

void put8(Bytes& to, unsigned value) {
    to.push_back(static_cast<U8_t>(value));
}

void put16(Bytes& to, unsigned value) {
    put8(to, value >> 8);
    put8(to, value & 0xFF);
}

void put32(Bytes& to, U32_t value) {
    put16(to, value >> 16);
    put16(to, value & 0xFFFF);
}

void putText(Bytes& to, const std::string& text, size_t size) {
    to.insert(to.end(), text.begin(), text.end());
    putZeros(to, size - text.size());
}

void putZeros(Bytes& to, size_t count) {
    to.insert(to.end(), count, 0);
}

Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

Bytes slice(const Bytes& bytes, size_t from, size_t to) {
    return Bytes(bytes.data() + from, bytes.data() + to);
}

Bytes counting(size_t count, unsigned first) {
    Bytes bytes;
    for (size_t i = 0; i < count; i++) {
        put8(bytes, (first + static_cast<unsigned>(i)) & 0xFF);
    }
    return bytes;
}

Bytes eventHeader(U32_t id, size_t length) {
    Bytes bytes;
    putText(bytes, ENCLOSURE, 64);
    putText(bytes, BLADE, 64);
    put32(bytes, SLOT);
    put32(bytes, INSTANCE);
    put32(bytes, id);
    put32(bytes, 0x65920080);
    put16(bytes, static_cast<unsigned>(length));
    put8(bytes, 26);
    put8(bytes, 2);
    put8(bytes, 3);
    put8(bytes, 1);
    put16(bytes, 0x0107);
    return bytes;
}

Bytes record(U32_t id, const Bytes& data) {
    return Bytes{0xB6, 0x8F, 1, 0, 0xC1, 0xC2, 0xC3, 0xC4} + eventHeader(id, data.size()) + data;
}

Bytes archiverEvent(U32_t id, const Bytes& data) {
    return archiverMessage(1, eventHeader(id, data.size()) + data, 0, 0, 1);
}

Bytes archiverMessage(unsigned type, const Bytes& body, U32_t returnCode, U32_t handle,
                      unsigned flag, unsigned version) {
    Bytes bytes;
    put16(bytes, version);
    put16(bytes, static_cast<unsigned>(body.size()));
    put16(bytes, type);
    put16(bytes, flag);
    put32(bytes, returnCode);
    put32(bytes, handle);
    return bytes + body;
}

Bytes statusBody(U32_t last, U32_t controlFlag) {
    Bytes bytes(168, 0xEE);
    put32(bytes, last);
    put32(bytes, controlFlag);
    return bytes;
}

Bytes inquiryBody(U32_t type, U32_t id, const std::string& enclosure, const std::string& blade,
                  U32_t slot, U32_t instance) {
    Bytes bytes;
    put32(bytes, type);
    putText(bytes, enclosure, 64);
    putText(bytes, blade, 64);
    put32(bytes, slot);
    put32(bytes, instance);
    put32(bytes, id);
    return bytes;
}

Bytes localMessage(unsigned type, const Bytes& body, unsigned requestor, unsigned mmsgCont,
                   U32_t handle) {
    Bytes bytes;
    putZeros(bytes, 8);
    put8(bytes, 14);
    put8(bytes, 1);
    put16(bytes, static_cast<unsigned>(64 + body.size()));
    put32(bytes, 0x08000000 | type);
    put8(bytes, requestor);
    put8(bytes, mmsgCont);
    put16(bytes, 0);
    put32(bytes, 0x08000000);
    putZeros(bytes, 16);
    put32(bytes, handle);
    putZeros(bytes, 20);
    return bytes + body;
}

Bytes replyHeader(unsigned type, unsigned length, U32_t returnCode, unsigned requestor,
                  U32_t handle, int word, U32_t bit) {
    Bytes bytes;
    putZeros(bytes, 8);
    put8(bytes, 14);
    put8(bytes, 1);
    put16(bytes, length);
    put32(bytes, 0x08000000 | type);
    put8(bytes, 27);
    put8(bytes, 0x40);
    put8(bytes, requestor);
    put8(bytes, 0);
    for (int i = 0; i < 4; i++) {
        put32(bytes, i == word ? bit : 0);
    }
    put32(bytes, returnCode);
    put32(bytes, handle);
    putZeros(bytes, 20);
    return bytes;
}

std::string hexDumpOf(const Bytes& bytes) {
    std::string text;
    for (size_t n = 1; n <= bytes.size(); n++) {
        char digits[3];
        snprintf(digits, sizeof(digits), "%02X", bytes[n - 1]);
        text += digits;
        text += n % 64 == 0 ? "\n\n" : n % 32 == 0 ? "\n" : n % 4 == 0 ? " " : "";
    }
    return text + "\n";
}

// --- The bench -----------------------------------------------------------------------------------

LinkTest::LinkTest() {
    bench = {};
    empControl = {};
    std::fill(std::begin(eventEntryDatabase), std::end(eventEntryDatabase), EmpEvDatabase_t{});
    FILE* file = tmpfile();
    empLogTake(dup(fileno(file)));
    fclose(file);
    empControl.socketFdMSM = MSM_SOCKET;
    empControl.empDebug = 1;
    empControl.selectTimeout = {1, 0};
    empControl.reconnectTimeout = {300, 0};
    empControl.forwardTimeout = {5, 0};
    empControl.empEventArchiverHandle = 1000;
    empControl.evArchiverSocketState = EMP_E_ARCHIVER_SOCKET_ST_CLOSE;
    memcpy(empControl.empEnclosureId, ENCLOSURE, sizeof(ENCLOSURE));
    memcpy(empControl.empBladeId, BLADE, sizeof(BLADE));
    empControl.empSlotId = SLOT;
    empControl.empInstanceNumber = INSTANCE;
    empEvMsgPoolInit();
    // What earlier work may leave behind; no reply may show it.
    memset(eventEntryWorkSpace, 0xA5, EMP_WORK_SPACE_SIZE);
}

LinkTest::~LinkTest() {
    for (EvMsgRecordEntry_t& entry : EvMsgRecord) {
        free(entry.memAddressPtr);
    }
    close(empControl.eventLogFileFd);
}

void LinkTest::store(U32_t id, U32_t offset, const Bytes& data) {
    Bytes bytes = record(id, data);
    ASSERT_EQ(pwrite(empControl.eventLogFileFd, bytes.data(), bytes.size(), offset),
              static_cast<ssize_t>(bytes.size()));
    eventEntryDatabase[id % 10000].evFlag = 1;
    eventEntryDatabase[id % 10000].evOffset = offset;
}

void LinkTest::storeRange(U32_t first, U32_t next) {
    for (U32_t id = first; id != next; id++) {
        store(id, (id - first) * 200, dataOf(id));
    }
    setRange(first, next);
}

Bytes LinkTest::dataOf(U32_t id) {
    return counting(40, id);
}

void LinkTest::setRange(U32_t first, U32_t next) {
    empControl.empStartSequenceId = first;
    empControl.empSequenceId = next;
}

void LinkTest::setLink(EMP_ARCHIVER_SOCKET_STATE_e state) {
    empControl.socketFdEventArchiver = ARCHIVER_SOCKET;
    empControl.evManagerStatusFlag = EMP_STATUS_FLAG_ARCHIVER;
    empControl.evArchiverSocketState = state;
}

S64_t LinkTest::filePosition() {
    return empLogFilePosition;
}

namespace {

std::string withoutStamps(const std::string& text) {
    const std::string stamp = STAMP;
    std::string result;
    size_t from = 0;
    for (size_t at = text.find(stamp); at != std::string::npos; at = text.find(stamp, from)) {
        result.append(text, from, at - from);
        from = at + stamp.size();
    }
    return result.append(text, from);
}

std::string captured() {
    fflush(stdout);
    return withoutStamps(testing::internal::GetCapturedStdout());
}

} // namespace

std::string LinkTest::linesOf(const std::function<void()>& step) {
    testing::internal::CaptureStdout();
    try {
        step();
    } catch (const BugCheck& bugCheck) {
        captured();
        ADD_FAILURE() << "bug-check of " << bugCheck.function << ": " << bugCheck.message;
        return "";
    }
    return captured();
}

BugCheck LinkTest::bugCheckOf(const std::function<void()>& step) {
    testing::internal::CaptureStdout();
    try {
        step();
    } catch (const BugCheck& bugCheck) {
        output = captured();
        return bugCheck;
    }
    output = captured();
    ADD_FAILURE() << "no bug-check";
    return {};
}

MMSG_t* LinkTest::received(const Bytes& bytes) {
    memset(empControl.empInMsg, 0, EMP_WORK_SPACE_SIZE);
    memcpy(empControl.empInMsg, bytes.data(), bytes.size());
    return reinterpret_cast<MMSG_t*>(empControl.empInMsg);
}

const EmpEvArchiverMsg_t* LinkTest::receivedFromArchiver(const Bytes& bytes) {
    return reinterpret_cast<const EmpEvArchiverMsg_t*>(received(bytes));
}

std::vector<Bytes> LinkTest::sentTo(int descriptor) {
    std::vector<Bytes> all;
    for (const SendCall& call : bench.sends) {
        if (call.descriptor == descriptor) {
            all.push_back(call.bytes);
        }
    }
    return all;
}

std::vector<EvMsgRecordEntry_t*> listed(EvMsgRecordList_t* list) {
    std::vector<EvMsgRecordEntry_t*> entries;
    for (EvMsgRecordEntry_t** at = list; *at != nullptr; at = &(*at)->link.flink) {
        EXPECT_EQ((*at)->link.blink, at);
        entries.push_back(*at);
    }
    return entries;
}

// --- What the event manager calls ----------------------------------------------------------------

extern "C" {

[[noreturn]] void __wrap__Z8empFaultPKciS0_S0_z(const char* fileName, int lineNo,
                                                const char* fnName, const char* msg, ...) {
    char text[1024];
    va_list arguments;
    va_start(arguments, msg);
    vsnprintf(text, sizeof(text), msg, arguments);
    va_end(arguments);
    throw BugCheck{fileName, lineNo, fnName, text};
}

void __wrap__Z12empMmsgPrintPK6MMSG_s(const MMSG_t* mmsg) {
    const U8_t* bytes = reinterpret_cast<const U8_t*>(mmsg);
    bench.printedMmsgs.emplace_back(bytes, bytes + mmsg->mmch.mmsg_length);
    printf("<MMSG>\n");
}

void __wrap__Z21empEvArchiverMsgPrintPK18EmpEvArchiverMsg_s(const EmpEvArchiverMsg_t* message) {
    const U8_t* bytes = reinterpret_cast<const U8_t*>(message);
    size_t length = 16U + message->evArchiverMsgHdr.evArchiverMsgBodyLength;
    bench.printedMessages.emplace_back(bytes, bytes + length);
    printf("<archiver message>\n");
}

ssize_t __wrap_send(int descriptor, const void* buffer, size_t length, int flags) {
    std::deque<ssize_t>& takes = descriptor == MSM_SOCKET ? bench.msmTakes : bench.archiverTakes;
    ssize_t result = static_cast<ssize_t>(length);
    if (!takes.empty()) {
        result = takes.front();
        takes.pop_front();
    }
    const U8_t* bytes = static_cast<const U8_t*>(buffer);
    bench.sends.push_back({descriptor, flags, Bytes(bytes, bytes + length), result});
    if (result == -1) {
        errno = descriptor == MSM_SOCKET ? EPIPE : EAGAIN;
    }
    return result;
}

ssize_t __wrap_recv(int descriptor, void* buffer, size_t length, int flags) {
    bench.recvCalls.push_back({descriptor, length, flags});
    if (bench.receives.empty()) {
        errno = EAGAIN;
        return -1;
    }
    RecvStep step = bench.receives.front();
    bench.receives.pop_front();
    if (step.error != 0) {
        errno = step.error;
    }
    if (step.data.empty()) {
        return step.result;
    }
    EXPECT_LE(step.data.size(), length);
    memcpy(buffer, step.data.data(), step.data.size());
    return static_cast<ssize_t>(step.data.size());
}

static std::vector<int> takeSet(int count, fd_set* set, const std::vector<int>& ready) {
    std::vector<int> asked;
    for (int descriptor = 0; descriptor < count; descriptor++) {
        if (FD_ISSET(descriptor, set)) {
            asked.push_back(descriptor);
        }
    }
    FD_ZERO(set);
    for (int descriptor : asked) {
        if (std::find(ready.begin(), ready.end(), descriptor) != ready.end()) {
            FD_SET(descriptor, set);
        }
    }
    return asked;
}

int __wrap_select(int count, fd_set* readSet, fd_set* writeSet, fd_set* exceptSet,
                  struct timeval* timeout) {
    EXPECT_EQ(exceptSet, nullptr);
    SelectCall call = {count, takeSet(count, readSet, bench.readable),
                       takeSet(count, writeSet, bench.writable), *timeout};
    bench.selects.push_back(call);
    *timeout = {0, 0};
    return bench.selectResult;
}

int __wrap_sched_yield() {
    bench.yields++;
    bench.monotonicClock += bench.yieldTakes;
    return 0;
}

int __real_clock_gettime(clockid_t clock, struct timespec* time);
int __wrap_clock_gettime(clockid_t clock, struct timespec* time) {
    if (clock != CLOCK_MONOTONIC) {
        return __real_clock_gettime(clock, time);
    }
    *time = {static_cast<time_t>(bench.monotonicClock / 1'000'000'000),
             static_cast<long>(bench.monotonicClock % 1'000'000'000)};
    return 0;
}

int __wrap_socket(int domain, int type, int protocol) {
    EXPECT_EQ(domain, AF_INET);
    EXPECT_EQ(type, SOCK_STREAM);
    EXPECT_EQ(protocol, 0);
    if (bench.sockets.empty()) {
        return bench.nextSocket++;
    }
    int result = bench.sockets.front();
    bench.sockets.pop_front();
    return result;
}

static int benchFcntl(int descriptor, int command, int argument) {
    if (command == F_SETFL) {
        EXPECT_EQ(argument, O_RDWR | O_NONBLOCK);
        bench.nonBlocking = descriptor;
    }
    return O_RDWR;
}
int __wrap_fcntl(int descriptor, int command, int argument) {
    return benchFcntl(descriptor, command, argument);
}
int __wrap_fcntl64(int descriptor, int command, int argument) {
    return benchFcntl(descriptor, command, argument);
}

int __wrap_connect(int descriptor, const void* address, socklen_t length) {
    EXPECT_EQ(descriptor, empControl.socketFdEventArchiver);
    const U8_t* bytes = static_cast<const U8_t*>(address);
    bench.connects.emplace_back(bytes, bytes + length);
    errno = bench.connectError;
    return bench.connectResult;
}

int __wrap_getsockopt(int descriptor, int level, int option, void* value, socklen_t* length) {
    if (descriptor == MSM_SOCKET && option == SO_SNDBUF) {
        const int roomy = 212'992;
        memcpy(value, &roomy, sizeof(roomy));
        return 0;
    }
    EXPECT_EQ(descriptor, empControl.socketFdEventArchiver);
    EXPECT_EQ(level, SOL_SOCKET);
    EXPECT_EQ(option, SO_ERROR);
    EXPECT_EQ(*length, 4U);
    memcpy(value, &bench.socketError, sizeof(bench.socketError));
    return 0;
}

int __real_close(int descriptor);
int __wrap_close(int descriptor) {
    if (descriptor < MSM_SOCKET) {
        return __real_close(descriptor);
    }
    bench.closed.push_back(descriptor);
    return 0;
}

ssize_t __real_pread64(int descriptor, void* buffer, size_t length, S64_t offset);
static ssize_t benchRead(int descriptor, void* buffer, size_t length, S64_t offset) {
    if (descriptor == empControl.eventLogFileFd) {
        bench.reads++;
        if (bench.failSeek > 0 && --bench.failSeek == 0) {
            errno = ESPIPE;
            return -1;
        }
        // A read that is to fail later must come to pass: no header brings its data along.
        if (bench.failRead > 1) {
            length = std::min<size_t>(length, 160);
        }
        if (bench.failRead > 0 && --bench.failRead == 0) {
            __real_pread64(descriptor, buffer, length, offset);
            return bench.shortRead;
        }
    }
    return __real_pread64(descriptor, buffer, length, offset);
}
ssize_t __wrap_pread(int descriptor, void* buffer, size_t length, off_t offset) {
    return benchRead(descriptor, buffer, length, offset);
}
ssize_t __wrap_pread64(int descriptor, void* buffer, size_t length, S64_t offset) {
    return benchRead(descriptor, buffer, length, offset);
}

void* __real_malloc(size_t size);
void* __wrap_malloc(size_t size) {
    return bench.failMalloc ? nullptr : __real_malloc(size);
}

} // extern "C"
