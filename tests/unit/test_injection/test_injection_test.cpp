#include "test_injection.h"

#include "dying_child.h"
#include "emp_fixture.h"
#include "fixed_time_stamp.h"

#include <cerrno>
#include <filesystem>
#include <numeric>
#include <sys/socket.h>

using namespace support;
namespace fs = std::filesystem;

namespace {

bool sendIsShort;
int sendCalls;

} // namespace

extern "C" ssize_t __real_send(int fd, const void* buffer, size_t length, int flags);

extern "C" ssize_t __wrap_send(int fd, const void* buffer, size_t length, int flags) {
    if (fd == empControl.socketFdMSM) {
        sendCalls++;
        if (sendIsShort) {
            return 10;
        }
    }
    return __real_send(fd, buffer, length, flags);
}

namespace {

class TestInjection : public EmpTest {
  protected:
    TestInjection() {
        setText(params_.chassisSN, std::string(64, 'C')); // no NUL
        memset(eventEntryWorkSpace, 0xEE, EMP_WORK_SPACE_SIZE);
    }

    /** The output of a hook; its result in result_. */
    std::string test(U32_t type) {
        return outputOf([&] { result_ = empTestMsg(type); });
    }

    static std::string lines(const std::string& middle) {
        return stamped("empTestMsg(): This test Event Message is from Local Blade.\n" + middle +
                       "empTestMsg(): Send out a Test MMSG from the Event Manager to Event "
                       "Manager.\n");
    }

    /** A header of 64 bytes; everything that is not named is 0. */
    static Bytes header(U8_t type, U16_t length, U32_t handle) {
        Bytes bytes(64);
        bytes[8] = 14;
        bytes[9] = 1;
        bytes[10] = static_cast<U8_t>(length >> 8);
        bytes[11] = static_cast<U8_t>(length);
        bytes[12] = 8;
        bytes[15] = type;
        bytes[16] = 27;
        bytes[18] = 27;
        bytes[20] = 0x08;
        bytes[42] = static_cast<U8_t>(handle >> 8);
        bytes[43] = static_cast<U8_t>(handle);
        return bytes;
    }

    static Bytes countingBytes() {
        Bytes bytes(50);
        std::iota(bytes.begin(), bytes.end(), U8_t{0});
        return bytes;
    }

    S32_t result_ = -99;
};

TEST_F(TestInjection, Event) {
    EXPECT_EQ(test(1), lines("empTestMsg(): mmsg_length = [266], sizeof(MMCH_t) = [64]\n"
                             "empTestMsg(): sizeof(EmpEvLogHeader_t) = [152], "
                             "sizeof(EmpTestEvStruct_t) = [50]\n"));
    EXPECT_EQ(result_, 266);
    EXPECT_EQ(msm_.receive(),
              joined({header(1, 266, 0), repeated(147, 0), {1, 1, 1, 0, 3}, countingBytes()}));
}

TEST_F(TestInjection, Inquiry) {
    EXPECT_EQ(test(2), lines("empTestMsg(): mmsg_length = [208], sizeof(MMCH_t) = [64]\n"
                             "empTestMsg(): sizeof(EmpEvInquiryMsg_t) = [144]\n"));
    EXPECT_EQ(result_, 208);
    EXPECT_EQ(msm_.receive(), joined({header(2, 208, 1234),
                                      {0, 0, 0, 1},
                                      textField(std::string(63, 'C')),
                                      textField("BLADE-42"),
                                      {0, 0, 0, 3},
                                      {0, 0, 0, 0},
                                      {0, 0, 0, 10}}));
}

TEST_F(TestInjection, SetArchiver) {
    EXPECT_EQ(test(3), lines("empTestMsg(): mmsg_length = [72], sizeof(MMCH_t) = [64]\n"
                             "empTestMsg(): sizeof(EmpSetEvArchiverMsg_t) = [8]\n"));
    EXPECT_EQ(result_, 72);
    EXPECT_EQ(msm_.receive(), joined({header(3, 72, 1234), {192, 168, 0, 1, 0x4E, 0x20, 0, 0}}));
}

TEST_F(TestInjection, ManagerStatus) {
    EXPECT_EQ(test(5), lines("empTestMsg(): mmsg_length = [84], sizeof(MMCH_t) = [64]\n"
                             "empTestMsg(): sizeof(EmpGetEvManagerStatusMsg_t) = [20]\n"));
    EXPECT_EQ(result_, 84);
    EXPECT_EQ(msm_.receive(), joined({header(5, 84, 1234), repeated(20, 0)}));
}

TEST_F(TestInjection, OtherTypesSendNothingEvenOnAClosedSocket) {
    msm_.close();
    for (U32_t type : {0U, 4U, 6U, 7U, 8U, 0x01000001U}) {
        result_ = -99;
        EXPECT_EQ(test(type), lines("empTestMsg(): Un-supported Event Message.\n"));
        EXPECT_EQ(result_, 0);
    }
    EXPECT_EQ(sendCalls, 0);
}

TEST_F(TestInjection, ShortSendShowsTheIntendedLengthUnderTheNameWithParentheses) {
    sendIsShort = true;
    std::string output = expectBugCheck([] { empTestMsg(5); }, "empTestMsg()",
                                        "Linux send function fails, sendSize = [84] is wrong");
    EXPECT_EQ(output.rfind(lines("empTestMsg(): mmsg_length = [84], sizeof(MMCH_t) = [64]\n"
                                 "empTestMsg(): sizeof(EmpGetEvManagerStatusMsg_t) = [20]\n") +
                               STAMP "**",
                           0),
              0U)
        << "no dump";
}

TEST_F(TestInjection, AlternateEventBecomesAFile) {
    EXPECT_EQ(empTestAlternateEventLog(), 0);
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(directory_.file("aelfiles"))) {
        files.insert(files.end(), entry.path());
    }
    ASSERT_EQ(files.size(), 1U);
    std::string file = readFile(files[0]);
    ASSERT_EQ(file.size(), 210U);
    EXPECT_EQ(bytesAt(file.data(), 4), (Bytes{0xB6, 0x8F, 1, 0}));
    EXPECT_EQ(bytesAt(&file[8], 140), joined({textField(std::string(63, 'C')),
                                              textField("BLADE-42"),
                                              {0, 0, 0, 3},
                                              repeated(8, 0)}));
    EXPECT_EQ(bytesAt(&file[152], 58), joined({{0, 50, 27, 1, 1, 1, 0, 3}, countingBytes()}));
}

TEST_F(TestInjection, AlternateEventWithoutParametersIsNothing) {
    oMpuParams = nullptr;
    std::string output = outputOf([&] { result_ = empTestAlternateEventLog(); });
    EXPECT_EQ(result_, 0);
    EXPECT_EQ(output, "altEventLogM(): AEL File not created for Requestor [27] b/s MPU Parameters "
                      "memory not initialized\n");
}

} // namespace
