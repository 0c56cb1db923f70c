// The floor: what the kernel and the checksum take of an event, and nothing else. It receives one
// message, stamps and sums it up, writes the record and sends the copy. It prints nothing, indexes
// nothing, and takes whatever stands in its log. `bench_floor KEY`, like the event manager. With
// BENCH_INQUIRY in its environment it answers inquiries instead; with BENCH_ARCHIVER, a port on
// this machine, it also sends each event there.
#include "altEventLog.h"
#include "emp_mesgs.h"
#include "mmsg.h"
#include "mpu_gbl.h"
#include "startup.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr U32_t DATA_SIZE = 100;

U8_t message[MMSG_MAX_LENGTH];
U8_t record[MMSG_MAX_LENGTH];
U8_t wholeLog[EMP_LOG_FILE_SIZE];

int connectTo(const char* directory) {
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof(address.sun_path), "%.90s%s", directory, EMP_MSM_SOCKET_NAME);
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (connect(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof(address)) != 0) {
        perror("bench_floor: connect");
        exit(2);
    }
    return fd;
}

/** Opens the log, reads it with one call and sums it up once. */
int openLog(const char* directory) {
    char path[EMP_DIRECTORY_TEXT_SIZE + sizeof(EMP_LOG_FILE_NAME)];
    snprintf(path, sizeof(path), "%.128s%s", directory, EMP_LOG_FILE_NAME);
    int fd = open(path, O_RDWR | O_CREAT, 0600);
    ssize_t size = read(fd, wholeLog, sizeof(wholeLog));
    if (size > 0) {
        volatile U32_t sum = computeCRC32(wholeLog, static_cast<U32_t>(size));
        static_cast<void>(sum);
    }
    return fd;
}

void sendNotice(int fd) {
    MMCH_t notice = {};
    notice.mmsg_length = MMCH_SIZE;
    notice.opcode.request.protocol = MMSG_E_PROTOCOL_STARTUP;
    send(fd, &notice, sizeof(notice), 0);
}

/** Reads a record and sends the reply that carries it. */
void serveInquiries(int fd, int log) {
    const auto& inquiry = *reinterpret_cast<const EmpEvInquiryMsg_t*>(message + MMCH_SIZE);
    constexpr U32_t length = EMP_CRC_START + EMP_EVENT_HEADER_SIZE + DATA_SIZE;
    for (;;) {
        if (recv(fd, message, MMCH_SIZE + sizeof(inquiry), MSG_WAITALL) <= 0) {
            exit(0);
        }
        U32_t offset = inquiry.evSeqIdInquiry % (EMP_LOG_FILE_SIZE / length) * length;
        ssize_t got = pread(log, record, length, offset);
        memcpy(message + MMCH_SIZE, record + EMP_CRC_START, length - EMP_CRC_START);
        if (got < static_cast<ssize_t>(length) ||
            send(fd, message, MMCH_SIZE + length - EMP_CRC_START, 0) < 0) {
            exit(1);
        }
    }
}

int connectToArchiver(const char* port) {
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<U16_t>(atoi(port)));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (connect(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof(address)) != 0) {
        perror("bench_floor: archiver");
        exit(2);
    }
    return fd;
}

/** Sends an event as the archiver gets it. */
void forward(int archiver, const EmpEvLogHeader_t& header, size_t length) {
    static U8_t wire[MMSG_MAX_LENGTH];
    auto& wireHeader = *reinterpret_cast<EmpEvArchiverMsgHeader_t*>(wire);
    wireHeader.evArchiverMsgBodyLength = static_cast<U16_t>(length);
    memcpy(wire + sizeof(wireHeader), &header, length);
    if (send(archiver, wire, sizeof(wireHeader) + length, 0) < 0) {
        exit(1);
    }
}

void serve(int fd, int log, int archiver) {
    U32_t offset = 0;
    U32_t id = 0;
    auto& header = *reinterpret_cast<EmpEvLogHeader_t*>(message + MMCH_SIZE);
    for (;;) {
        ssize_t size = recv(fd, message, EMP_EVENT_MMSG_SIZE + DATA_SIZE, MSG_WAITALL);
        if (size < EMP_EVENT_MMSG_SIZE) {
            exit(0);
        }
        auto length = static_cast<U32_t>(size) - MMCH_SIZE;
        header.evSequenceId = id++;
        header.evTime = static_cast<U32_t>(mpuGetSecond());
        header.evStructLength = static_cast<U16_t>(length - EMP_EVENT_HEADER_SIZE);
        memcpy(record + EMP_CRC_START, &header, length);
        U32be_t sum = computeCRC32(record + EMP_CRC_START, length);
        memcpy(record + 4, &sum, sizeof(sum));
        offset = offset + EMP_CRC_START + length > EMP_LOG_FILE_SIZE ? 0 : offset;
        if (pwrite(log, record, EMP_CRC_START + length, offset) < 0) {
            exit(1);
        }
        if (archiver != -1) {
            forward(archiver, header, length);
        }
        if (send(fd, message, static_cast<size_t>(size), 0) < size) {
            exit(1);
        }
        offset += EMP_CRC_START + length;
    }
}

} // namespace

int main(int argc, char* argv[]) {
    const MPU_PARAMS_t* params = MPU_getMpuParams(argc < 2 ? 0 : atoi(argv[argc - 1]));
    if (params == nullptr) {
        return 2;
    }
    int fd = connectTo(params->mmsgDirectory);
    int log = openLog(params->nvramDirectory);
    sendNotice(fd);
    if (getenv("BENCH_INQUIRY") != nullptr) {
        serveInquiries(fd, log);
    }
    const char* port = getenv("BENCH_ARCHIVER");
    serve(fd, log, port == nullptr ? -1 : connectToArchiver(port));
}
