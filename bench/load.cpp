// Plays the message switch for one server and measures it: `bench_load MODE COUNT SERVER...`. The
// server gets the key of a parameter block as its last argument. Prints one line of JSON.
//
//   intake:  COUNT events of 100 bytes, 256 in flight, one message a send, in a log that has gone
//            round
//   latency: COUNT events, one in flight
//   inquiry: COUNT inquiries for one event each, one in flight
//   forward: as intake, while an archiver that reads on gets the events too
//   archived: as intake, while the archiver at port BENCH_ARCHIVER of this machine gets the events
//            too; says "ready" before the events that count, and waits for a line
//   start:   COUNT starts on a full log of events of 100 bytes, from the fork to the notice
//
// Server and driver share one processor: a wake-up across processors costs more, and less evenly,
// than an event.
#include "emp_mesgs.h"
#include "mmsg.h"
#include "mpu_gbl.h"
#include "startup.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <poll.h>
#include <random>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t MESSAGE_SIZE = EMP_EVENT_MMSG_SIZE + 100;
constexpr size_t FORWARDED_SIZE = MESSAGE_SIZE - MMCH_SIZE + sizeof(EmpEvArchiverMsgHeader_t);
constexpr ssize_t STATUS_REQUEST_SIZE = 196;
constexpr int WINDOW = 256;
constexpr int ROUND_THE_LOG = 7000; // events of 260 bytes in the log: 6150 fill it

double nanoseconds(Clock::duration span) {
    return std::chrono::duration<double, std::nano>(span).count();
}

void check(bool good, const char* what) {
    if (!good) {
        throw std::runtime_error(std::string(what) + ": " + strerror(errno));
    }
}

/** Directories and a parameter block of this run, removed at its end. */
class Blade {
  public:
    Blade() {
        check(mkdtemp(directory_) != nullptr, "mkdtemp");
        for (const char* name : {"/m", "/n"}) {
            std::filesystem::create_directory(path(name));
        }
        std::ofstream(path("/p")) << "Version=15\nSlot=1\nSerialNumber=B\nChassisSerialNumber=E\n"
                                  << "MmsgDirectory=" << path("/m")
                                  << "\nNvramDirectory=" << path("/n") << '\n';
        setenv("NONXML_FILE", path("/p").c_str(), 1);
        key_ = static_cast<int>(std::random_device{}() & 0x3FFFFFFFU) + 100;
        check(MPU_createMpuParams(&shmid_, key_) != nullptr, "parameter block");
    }
    ~Blade() {
        MPU_deleteMpuParams(shmid_);
        std::filesystem::remove_all(directory_);
    }
    Blade(const Blade&) = delete;
    Blade& operator=(const Blade&) = delete;

    std::string path(const std::string& name) const { return directory_ + name; }
    std::string key() const { return std::to_string(key_); }

  private:
    char directory_[20] = "/tmp/benchXXXXXX";
    int shmid_ = -1;
    int key_ = 0;
};

int listenAt(const std::string& path) {
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    check(bind(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof(address)) == 0 &&
              listen(fd, 1) == 0,
          "listen");
    return fd;
}

/** A running server that has said it is ready. */
class Server {
  public:
    Server(const Blade& blade, int listener, std::vector<std::string> words) {
        words.push_back(blade.key());
        std::vector<char*> arguments;
        for (std::string& word : words) {
            arguments.push_back(word.data());
        }
        arguments.push_back(nullptr);
        std::string output = blade.path("/out");
        begun_ = Clock::now();
        pid_ = fork();
        if (pid_ == 0) {
            dup2(open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
            execvp(arguments[0], arguments.data());
            _exit(127);
        }
        // A server that cannot be started connects to nothing.
        struct pollfd waiting = {listener, POLLIN, 0};
        check(poll(&waiting, 1, 10'000) == 1, "the server does not connect");
        socket_ = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        check(socket_ >= 0, "accept");
        U8_t notice[MMCH_SIZE];
        check(recv(socket_, notice, sizeof(notice), MSG_WAITALL) == MMCH_SIZE, "no notice");
        ready_ = Clock::now();
    }
    ~Server() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        close(socket_);
        if (archiver_ != -1) {
            close(archiver_);
        }
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    double startNanoseconds() const { return nanoseconds(ready_ - begun_); }

    double cpuNanoseconds() const {
        clockid_t clock;
        struct timespec used;
        check(clock_getcpuclockid(pid_, &clock) == 0 && clock_gettime(clock, &used) == 0, "clock");
        return static_cast<double>(used.tv_sec) * 1e9 + static_cast<double>(used.tv_nsec);
    }

    /** Sends events, at most @p window unanswered, and reads their copies. */
    void log(int count, int window) {
        int sent = 0;
        size_t received = 0;
        while (received < static_cast<size_t>(count) * MESSAGE_SIZE) {
            while (sent < count && sent - static_cast<int>(received / MESSAGE_SIZE) < window) {
                check(send(socket_, message_, sizeof(message_), MSG_NOSIGNAL) ==
                          static_cast<ssize_t>(sizeof(message_)),
                      "send");
                sent++;
            }
            ssize_t size = recv(socket_, copies_, sizeof(copies_), 0);
            check(size > 0, "the server is gone");
            received += static_cast<size_t>(size);
            drainArchiver();
        }
    }

    /** Sends an inquiry for an event of this blade and reads the reply. */
    void inquire(U32_t sequenceId) {
        struct {
            MMCH_t mmch;
            EmpEvInquiryMsg_t inquiry;
        } request = {};
        memcpy(&request.mmch, message_, sizeof(request.mmch));
        request.mmch.mmsg_length = sizeof(request);
        request.mmch.opcode.request.type = EMP_E_MSGS_INQUIRY;
        request.inquiry.evInquiryType = EMP_E_INQUIRY_TYPE_EXACT;
        request.inquiry.evEnclosureId[0] = 'E';
        request.inquiry.evBladeId[0] = 'B';
        request.inquiry.evSlotId = 1U;
        request.inquiry.evSeqIdInquiry = sequenceId;
        check(send(socket_, &request, sizeof(request), MSG_NOSIGNAL) == sizeof(request), "send");
        check(recv(socket_, copies_, MESSAGE_SIZE, MSG_WAITALL) == MESSAGE_SIZE, "no reply");
        const auto& reply = *reinterpret_cast<const EmpEvLogMsg_t*>(copies_ + MMCH_SIZE);
        check(reply.evLogHdr.evStructLength == 100, "another reply");
    }

    /** Names the archiver at a port of this machine. */
    void nameArchiver(U16_t port) {
        struct {
            MMCH_t mmch;
            EmpSetEvArchiverMsg_t archiver;
        } request = {};
        memcpy(&request.mmch, message_, sizeof(request.mmch));
        request.mmch.mmsg_length = sizeof(request);
        request.mmch.opcode.request.type = EMP_E_MSGS_SET_EVENT_ARCHIVER;
        request.archiver.evArchiverIpAddress = {{127, 0, 0, 1}};
        request.archiver.evArchiverTcpPort = port;
        check(send(socket_, &request, sizeof(request), MSG_NOSIGNAL) == sizeof(request), "send");
        check(recv(socket_, copies_, MMCH_SIZE + 8, MSG_WAITALL) == MMCH_SIZE + 8, "no reply");
    }

    /** nameArchiver(); it is this program, which listens at @p listener. */
    void setArchiver(int listener, U16_t port) {
        nameArchiver(port);
        archiver_ = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        check(recv(archiver_, copies_, STATUS_REQUEST_SIZE, MSG_WAITALL) == STATUS_REQUEST_SIZE,
              "no status request");
    }

    /** The archiver holds all up to an id. */
    void answerStatus(U32_t last) {
        struct {
            EmpEvArchiverMsgHeader_t header;
            EmpGetEvArchiverStatusMsg_t status;
        } answer = {};
        answer.header.evArchiverMsgHdrVersion = 1;
        answer.header.evArchiverMsgBodyLength = sizeof(answer.status);
        answer.header.evArchiverMsgType = EMP_E_MSGS_GET_EVENT_ARCHIVER_STATUS;
        answer.header.evArchiverMsgFlag = EMP_E_EVENT_ARCHIVER_MSG_RESPONSE;
        answer.header.evArchiverMsgReturnCode = EMP_E_RESPONSE_SUCCESS;
        answer.status.evSequenceIdLast = last;
        check(send(archiver_, &answer, sizeof(answer), 0) == sizeof(answer), "send");
    }

    /** The archiver of a server that connects by itself. */
    void takeArchiver(int listener) {
        archiver_ = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    }

    /** Reads until the archiver has got that many events since the last call. */
    void awaitForwarded(int count) {
        size_t awaited = static_cast<size_t>(count) * FORWARDED_SIZE;
        while (forwarded_ < awaited) {
            struct pollfd waiting = {archiver_, POLLIN, 0};
            check(poll(&waiting, 1, 10'000) == 1, "the archiver lacks events");
            drainArchiver();
        }
        forwarded_ -= awaited;
    }

    void prepareMessage() {
        auto& mmch = *reinterpret_cast<MMCH_t*>(message_);
        mmch.message_type = MSG_E_TYPE_MMSG;
        mmch.mmch_version = 1;
        mmch.mmsg_length = MESSAGE_SIZE;
        mmch.opcode.request.protocol = MMSG_E_PROTOCOL_EVENTMGR;
        mmch.opcode.request.type = 1U;
        mmch.requestor = MMSG_E_EPID_STARTUPMP;
        mmch.recipient_loc_bm[0] = 1U << MMSG_E_EPID_EVENTLOGMP;
    }

  private:
    void drainArchiver() {
        ssize_t size = 0;
        while (archiver_ != -1 && (size = recv(archiver_, forwardedBytes_, sizeof(forwardedBytes_),
                                               MSG_DONTWAIT)) > 0) {
            forwarded_ += static_cast<size_t>(size);
        }
    }

    pid_t pid_ = -1;
    int socket_ = -1;
    int archiver_ = -1;
    size_t forwarded_ = 0; ///< bytes
    U8_t forwardedBytes_[65536];
    Clock::time_point begun_;
    Clock::time_point ready_;
    alignas(8) U8_t message_[MESSAGE_SIZE] = {};
    U8_t copies_[65536];
};

void measureEvents(Server& server, int count) {
    double cpu = server.cpuNanoseconds();
    auto begun = Clock::now();
    server.log(count, WINDOW);
    double span = nanoseconds(Clock::now() - begun);
    printf("{\"cpu_ns\": %.0f, \"events_per_s\": %.0f}\n", (server.cpuNanoseconds() - cpu) / count,
           count / span * 1e9);
}

void measureIntake(Server& server, int count) {
    server.log(ROUND_THE_LOG, WINDOW);
    measureEvents(server, count);
}

void measureArchived(Server& server, int count) {
    const char* port = getenv("BENCH_ARCHIVER");
    check(port != nullptr, "BENCH_ARCHIVER is not set");
    server.nameArchiver(static_cast<U16_t>(atoi(port)));
    server.log(ROUND_THE_LOG, WINDOW);
    puts("ready");
    fflush(stdout);
    getchar();
    measureEvents(server, count);
}

/** Prints the figures @p name of one step after the other. */
template <typename Step>
void measureSpans(const char* name, int count, Step step) {
    std::vector<double> spans;
    for (int i = 0; i < count; i++) {
        auto begun = Clock::now();
        step(i);
        spans.push_back(nanoseconds(Clock::now() - begun));
    }
    std::sort(spans.begin(), spans.end());
    auto part = [&](double share) {
        return spans[static_cast<size_t>(share * static_cast<double>(spans.size() - 1))];
    };
    printf("{\"%sp50_ns\": %.0f, \"%sp99_ns\": %.0f}\n", name, part(0.5), name, part(0.99));
}

void measureLatency(Server& server, int count) {
    server.log(ROUND_THE_LOG, WINDOW);
    measureSpans("", count, [&](int) { server.log(1, 1); });
}

/** Asks for the newest thousand, over and over. */
void measureInquiry(Server& server, int count) {
    measureSpans("inquiry_", count,
                 [&](int i) { server.inquire(static_cast<U32_t>(ROUND_THE_LOG - 1 - i % 1000)); });
}

void measureForward(Server& server, int count) {
    auto begun = Clock::now();
    double cpu = server.cpuNanoseconds();
    server.log(count, WINDOW);
    server.awaitForwarded(count);
    double span = nanoseconds(Clock::now() - begun);
    printf("{\"forward_cpu_ns\": %.0f, \"forwarded_per_s\": %.0f}\n",
           (server.cpuNanoseconds() - cpu) / count, count / span * 1e9);
}

/** Logs before there is an archiver, then forwards. The floor connects by itself. */
void runForward(const Blade& blade, int listener, const std::vector<std::string>& words,
                int count) {
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    auto* generic = reinterpret_cast<struct sockaddr*>(&address);
    int archiver = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    check(bind(archiver, generic, size) == 0 && listen(archiver, 1) == 0 &&
              getsockname(archiver, generic, &size) == 0,
          "listen");
    U16_t port = ntohs(address.sin_port);
    setenv("BENCH_ARCHIVER", std::to_string(port).c_str(), 1);
    Server server(blade, listener, words);
    server.prepareMessage();
    // A server that connects by itself has done so when its first copy is there.
    server.log(1, 1);
    struct pollfd waiting = {archiver, POLLIN, 0};
    if (poll(&waiting, 1, 0) == 1) {
        server.takeArchiver(archiver);
        server.awaitForwarded(1);
    } else {
        server.log(ROUND_THE_LOG, WINDOW);
        server.setArchiver(archiver, port);
        server.answerStatus(ROUND_THE_LOG);
        server.log(1, 1);
        server.awaitForwarded(1);
    }
    measureForward(server, count);
}

void measureStart(const Blade& blade, int listener, const std::vector<std::string>& words,
                  int count) {
    std::vector<double> spans;
    for (int i = 0; i < count; i++) {
        spans.push_back(Server(blade, listener, words).startNanoseconds());
    }
    std::nth_element(spans.begin(), spans.begin() + count / 2, spans.end());
    printf("{\"start_ns\": %.0f}\n", spans[static_cast<size_t>(count / 2)]);
}

void run(const std::string& mode, int count, const std::vector<std::string>& words) {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(sched_getcpu(), &one);
    sched_setaffinity(0, sizeof(one), &one);
    Blade blade;
    int listener = listenAt(blade.path("/m/eventlog"));
    if (mode == "forward") {
        return runForward(blade, listener, words, count);
    }
    {
        Server server(blade, listener, words);
        server.prepareMessage();
        if (mode == "intake") {
            measureIntake(server, count);
        } else if (mode == "archived") {
            measureArchived(server, count);
        } else if (mode == "latency") {
            measureLatency(server, count);
        } else if (mode == "start" || mode == "inquiry") {
            server.log(ROUND_THE_LOG, WINDOW);
        } else {
            throw std::runtime_error("no such mode: " + mode);
        }
    }
    if (mode == "start") {
        measureStart(blade, listener, words, count);
    }
    if (mode == "inquiry") {
        setenv("BENCH_INQUIRY", "1", 1);
        Server server(blade, listener, words);
        server.prepareMessage();
        measureInquiry(server, count);
    }
}

} // namespace

int main(int argc, char* argv[]) {
    try {
        if (argc < 4 || atoi(argv[2]) < 1) {
            throw std::runtime_error(
                "usage: bench_load intake|latency|inquiry|forward|archived|start COUNT SERVER...");
        }
        run(argv[1], atoi(argv[2]), {argv + 3, argv + argc});
    } catch (const std::exception& error) {
        fprintf(stderr, "bench_load: %s\n", error.what());
        return 2;
    }
    return 0;
}
