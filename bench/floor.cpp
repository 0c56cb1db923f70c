// The floor: what the kernel and the checksum take of an event, and nothing else. It receives one
// message, stamps and sums it up, writes the record and sends the copy. It prints nothing, indexes
// nothing, and takes whatever stands in its log. `bench_floor KEY`, like the event manager.
#include "altEventLog.h"
#include "mmsg.h"
#include "mpu_gbl.h"
#include "startup.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

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

void serve(int fd, int log) {
    U32_t offset = 0;
    U32_t id = 0;
    auto& header = *reinterpret_cast<EmpEvLogHeader_t*>(message + MMCH_SIZE);
    for (;;) {
        ssize_t size = recv(fd, message, EMP_EVENT_MMSG_SIZE + 100, MSG_WAITALL);
        if (size < EMP_EVENT_MMSG_SIZE) {
            exit(0);
        }
        auto length = static_cast<U32_t>(size) - MMCH_SIZE;
        header.evSequenceId = id++;
        header.evTime = static_cast<U32_t>(mpuGetSecond());
        memcpy(record + EMP_CRC_START, &header, length);
        U32be_t sum = computeCRC32(record + EMP_CRC_START, length);
        memcpy(record + 4, &sum, sizeof(sum));
        offset = offset + EMP_CRC_START + length > EMP_LOG_FILE_SIZE ? 0 : offset;
        if (pwrite(log, record, EMP_CRC_START + length, offset) < 0 ||
            send(fd, message, static_cast<size_t>(size), 0) < size) {
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
    serve(fd, log);
}
