// The worked examples of docs/formats.md are what the event manager reads and writes.
#include "altEventLog.h"
#include "dispatch.h"
#include "startup/event_log_file.h"
#include "state/control.h"
#include "worked_example.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

using Bytes = std::vector<U8_t>;

constexpr time_t EXAMPLE_TIME = 1'704'067'200; // 2024-01-01 00:00:00 UTC

extern "C" int __wrap_gettimeofday(struct timeval* tv, void*) {
    tv->tv_sec = EXAMPLE_TIME;
    tv->tv_usec = 0;
    return 0;
}

class Formats : public testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/formatsXXXXXX";
        directory = mkdtemp(pattern);
        strcpy(params.nvramDirectory, directory.c_str());
        oMpuParams = &params;
        strcpy(reinterpret_cast<char*>(empControl.empEnclosureId), "ENC-0001");
        strcpy(reinterpret_cast<char*>(empControl.empBladeId), "BLADE-A");
        empControl.empSlotId = 1;
        empControl.empWrapOver = EMP_E_WRAP_OVER_FALSE;
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sockets), 0);
        empControl.socketFdMSM = sockets[0];
        empProcessEventLogFile();
    }
    void TearDown() override { std::filesystem::remove_all(directory); }

    Bytes fileBytes(off_t offset, size_t length) const {
        Bytes bytes(length);
        EXPECT_EQ(pread(empControl.eventLogFileFd, bytes.data(), length, offset),
                  static_cast<ssize_t>(length));
        return bytes;
    }

    MPU_PARAMS_t params = {};
    std::string directory;
    int sockets[2];
};

TEST_F(Formats, FreshLogIsTheExample) {
    Bytes bytes = workedExample("fresh log");
    ASSERT_EQ(bytes.size(), 360U);
    EXPECT_EQ(fileBytes(0, 360), bytes);
}

TEST_F(Formats, EventMessageIsStoredAsTheRecordExample) {
    Bytes message = workedExample("event message");
    Bytes record = workedExample("record");
    ASSERT_EQ(message.size(), 229U);
    ASSERT_EQ(record.size(), 173U);
    memcpy(empControl.empInMsg, message.data(), message.size());
    empProcEventMmsgMsg(reinterpret_cast<MMSG_t*>(empControl.empInMsg));
    EXPECT_EQ(fileBytes(200, record.size()), record);

    Bytes copy(300);
    ASSERT_EQ(recv(sockets[1], copy.data(), copy.size(), 0), 229);
    EXPECT_EQ(memcmp(copy.data() + MMCH_SIZE, record.data() + EMP_CRC_START, 165), 0);
}
