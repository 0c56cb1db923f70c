#include "startup/init.h"

#include "archiver/pending.h"
#include "dying_child.h"
#include "emp_fixture.h"
#include "fixed_time_stamp.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/select.h>
#include <sys/un.h>
#include <unistd.h>

using namespace support;

namespace {

enum Answer_e { REAL, FAIL, SUCCEED };

Answer_e socketAnswer = REAL;
int socketResult = -1; ///< what a socket call that is not REAL gives
Answer_e connectAnswer = REAL;
int connects;
struct sockaddr_un connectedTo;
socklen_t connectedLength;

constexpr char CONNECT_MARK[] = "<connect>";

} // namespace

extern "C" {

int __real_socket(int domain, int type, int protocol);
int __real_connect(int fd, const struct sockaddr* address, socklen_t length);

int __wrap_socket(int domain, int type, int protocol) {
    if (socketAnswer == REAL) {
        return __real_socket(domain, type, protocol);
    }
    errno = EMFILE;
    return socketResult;
}

int __wrap_connect(int fd, const struct sockaddr* address, socklen_t length) {
    connects++;
    connectedLength = length;
    memcpy(&connectedTo, address, std::min<size_t>(length, sizeof(connectedTo)));
    if (connectAnswer == REAL) {
        return __real_connect(fd, address, length);
    }
    // Shows which lines have left the process by now.
    EXPECT_GT(write(STDOUT_FILENO, CONNECT_MARK, sizeof(CONNECT_MARK) - 1), 0);
    errno = ECONNREFUSED;
    return connectAnswer == SUCCEED ? 0 : -1;
}
}

namespace {

/** Every byte of the state is dirty before the call. */
class Init : public EmpTest {
  protected:
    Init() {
        close(empControl.socketFdMSM);
        memset(static_cast<void*>(&empControl), 0xA5, sizeof(empControl));
        memset(static_cast<void*>(eventEntryDatabase), 0xA5, sizeof(eventEntryDatabase));
        memset(nullEmpEnclosureId, 0xA5, sizeof(nullEmpEnclosureId));
        memset(static_cast<void*>(EvMsgRecord), 0xA5, sizeof(EvMsgRecord));
        EvMsgRecordFreeList = EvMsgRecordForwardList = EvMsgRecordResponseList = &EvMsgRecord[5];
    }

    /** Runs empInit against a connection that always succeeds. @return what it printed */
    static std::string initUnconnected() {
        connectAnswer = SUCCEED;
        return endOf([] { empInit(); }).output;
    }
};

/** Prints the switch's path as the dump of a bug-check will find it. */
void showPath(int /*signal*/) {
    dprintf(STDOUT_FILENO, "<path %zu %.108s>", strnlen(empControl.socketAddressMSM.sun_path, 108),
            empControl.socketAddressMSM.sun_path);
}

void showPathAtAbort() {
    signal(SIGABRT, showPath);
}

/** A path of @p length characters. */
std::string directoryOf(size_t length) {
    std::string path(length, 'd');
    path[0] = '/';
    return path;
}

constexpr char NO_SOCKET[] = "Linux socket function fails for EMP socket!";
constexpr char NO_CONNECTION[] = "Linux connect function fails for MSM/EMP socket!";

TEST_F(Init, ConnectsBelowTheDirectoryWithTheWholeAddressLength) {
    MmsgListener listener(directory_.file("eventlog"));
    empInit();
    MmsgClient accepted = listener.accept();
    EXPECT_EQ(connects, 1);
    EXPECT_EQ(connectedLength, 110U);
    EXPECT_EQ(connectedTo.sun_family, AF_UNIX);
    EXPECT_EQ(connectedTo.sun_path, directory_.path() + "/eventlog");
    accepted.send({1, 2, 3});
    U8_t got[3] = {};
    EXPECT_EQ(recv(empControl.socketFdMSM, got, 3, 0), 3);
    EXPECT_EQ(fcntl(empControl.socketFdMSM, F_GETFL) & O_NONBLOCK, 0) << "the socket blocks";
}

TEST_F(Init, EveryFieldHasItsFirstValue) {
    MmsgListener listener(directory_.file("eventlog"));
    empInit();
    static EmpControl_t expected; // the rest is zero
    expected.socketFdMSM = empControl.socketFdMSM;
    expected.socketAddressMSM.sun_family = AF_UNIX;
    strcpy(expected.socketAddressMSM.sun_path, (directory_.path() + "/eventlog").c_str());
    expected.evArchiverSocketState = 5;
    expected.empEventArchiverHandle = 1000;
    strcpy(reinterpret_cast<char*>(expected.empEnclosureId), "CHASSIS-7");
    strcpy(reinterpret_cast<char*>(expected.empBladeId), "BLADE-42");
    expected.empSlotId = 3;
    expected.reconnectTimeout.tv_sec = 300;
    expected.forwardTimeout.tv_sec = 5;
    expected.empWrapOver = 1;
    expected.empDebug = 1;
    EXPECT_GT(empControl.socketFdMSM, 2);
    EXPECT_EQ(empControl.evArchiverSocketState, 5);
    EXPECT_EQ(empControl.empEventArchiverHandle, 1000U);
    EXPECT_EQ(empControl.empWrapOver, 1);
    EXPECT_EQ(empControl.empDebug, 1);
    EXPECT_EQ(empControl.empInstanceNumber, 0U);
    EXPECT_EQ(empControl.foundGap, 0);
    EXPECT_EQ(empControl.socketFdEventArchiver, 0);
    EXPECT_EQ(empControl.socketFdEventArchiverSet, 0);
    EXPECT_EQ(empControl.reconnectTimeout.tv_sec, 300);
    EXPECT_EQ(empControl.reconnectTimeout.tv_usec, 0);
    EXPECT_EQ(empControl.forwardTimeout.tv_sec, 5);
    EXPECT_EQ(empControl.forwardTimeout.tv_usec, 0);
    EXPECT_EQ(empControl.selectTimeout.tv_sec, 0) << "set just before the loop only";
    EXPECT_EQ(memcmp(&empControl, &expected, sizeof(expected)), 0);
}

TEST_F(Init, IndexAndEmptyEnclosureIdAreZero) {
    MmsgListener listener(directory_.file("eventlog"));
    empInit();
    EXPECT_EQ(bytesAt(eventEntryDatabase, sizeof(eventEntryDatabase)),
              Bytes(sizeof(eventEntryDatabase)));
    EXPECT_EQ(bytesAt(nullEmpEnclosureId, 64), Bytes(64));
}

TEST_F(Init, FreeListHoldsAllRecordsTheLastOneFirst) {
    MmsgListener listener(directory_.file("eventlog"));
    empInit();
    EXPECT_EQ(EvMsgRecordForwardList, nullptr);
    EXPECT_EQ(EvMsgRecordResponseList, nullptr);
    const EvMsgRecordEntry_t* entry = EvMsgRecordFreeList;
    for (int i = 63; i >= 0; i--) {
        ASSERT_EQ(entry, &EvMsgRecord[i]);
        EXPECT_EQ(entry->state, 1);
        EXPECT_EQ(entry->memAddressPtr, nullptr);
        EXPECT_EQ(entry->handle, 0U);
        entry = entry->link.flink;
    }
    EXPECT_EQ(entry, nullptr);
}

TEST_F(Init, IdsWithoutNulLoseTheirLastByte) {
    MmsgListener listener(directory_.file("eventlog"));
    setText(params_.chassisSN, std::string(64, 'C'));
    setText(params_.serialStr, std::string(64, 'B'));
    params_.slotId = 0x80000001;
    empInit();
    EXPECT_EQ(bytesAt(empControl.empEnclosureId, 64), textField(std::string(63, 'C')));
    EXPECT_EQ(bytesAt(empControl.empBladeId, 64), textField(std::string(63, 'B')));
    EXPECT_EQ(empControl.empSlotId, 0x80000001);
}

TEST_F(Init, BytesBehindTheNulOfAnIdAreNotTaken) {
    MmsgListener listener(directory_.file("eventlog"));
    setText(params_.chassisSN, std::string("C1\0junk", 7));
    empInit();
    EXPECT_EQ(bytesAt(empControl.empEnclosureId, 64), textField("C1"));
}

TEST_F(Init, FirstLineIsSilentInAFreshProcess) {
    empControl.empDebug = 0;
    std::string output = initUnconnected();
    EXPECT_EQ(output.find("starts initializing"), std::string::npos);
    EXPECT_NE(output.find(STAMP "empInit(): Event Manager connect to MSM with socket ["),
              std::string::npos);
}

TEST_F(Init, LinesLeaveTheProcessBeforeItConnects) {
    empControl.empDebug = 1;
    std::string output = initUnconnected();
    EXPECT_EQ(output.find(STAMP "empInit(): Event Manager starts initializing.\n<connect>" STAMP
                                "empInit(): Event Manager connect to MSM with socket ["),
              0U);
    EXPECT_EQ(output.substr(output.size() - 2), "]\n");
}

TEST_F(Init, LineShowsTheDescriptor) {
    MmsgListener listener(directory_.file("eventlog"));
    empControl.empDebug = 0;
    std::string output = outputOf(empInit);
    EXPECT_EQ(output, STAMP "empInit(): Event Manager connect to MSM with socket [" +
                          std::to_string(empControl.socketFdMSM) + "]\n");
}

TEST_F(Init, NobodyListensIsABugCheck) {
    expectBugCheck([] { empInit(); }, "empInit", NO_CONNECTION);
}

TEST_F(Init, RefusedConnectionIsABugCheck) {
    connectAnswer = FAIL;
    std::string output = expectBugCheck([] { empInit(); }, "empInit", NO_CONNECTION);
    EXPECT_NE(output.find(CONNECT_MARK), std::string::npos);
}

TEST_F(Init, NoSocketIsABugCheck) {
    socketAnswer = FAIL;
    connectAnswer = SUCCEED;
    std::string output = expectBugCheck([] { empInit(); }, "empInit", NO_SOCKET);
    EXPECT_EQ(output.find(CONNECT_MARK), std::string::npos);
}

TEST_F(Init, DescriptorThatSelectCannotWatchIsNoSocket) {
    connectAnswer = SUCCEED;
    socketAnswer = SUCCEED;
    socketResult = 1024;
    std::string output = expectBugCheck([] { empInit(); }, "empInit", NO_SOCKET);
    EXPECT_EQ(output.find(CONNECT_MARK), std::string::npos);
}

TEST_F(Init, LastDescriptorThatSelectCanWatchIsTaken) {
    connectAnswer = SUCCEED;
    socketAnswer = SUCCEED;
    socketResult = 1023;
    ChildEnd end = endOf([] { empInit(); });
    EXPECT_EQ(end.signal, 0);
    EXPECT_NE(end.output.find("connect to MSM with socket [1023]\n"), std::string::npos);
}

TEST_F(Init, DirectoryOf98CharactersIsConnectedTo) {
    connectAnswer = SUCCEED;
    setText(params_.mmsgDirectory, directoryOf(98));
    outputOf(empInit);
    ASSERT_EQ(connects, 1);
    EXPECT_EQ(connectedTo.sun_path, directoryOf(98) + "/eventlog");
    EXPECT_EQ(connectedTo.sun_path[107], '\0');
}

TEST_F(Init, DirectoryOf99CharactersIsNotConnectedTo) {
    connectAnswer = SUCCEED;
    setText(params_.mmsgDirectory, directoryOf(99));
    std::string output = expectBugCheck(
        [] {
            showPathAtAbort();
            empInit();
        },
        "empInit", NO_CONNECTION);
    EXPECT_EQ(output.find(CONNECT_MARK), std::string::npos) << "to no truncated name";
    EXPECT_NE(output.find("<path 107 " + directoryOf(99) + "/eventlo>"), std::string::npos);
}

TEST_F(Init, DirectoryWithoutNulIsNotConnectedTo) {
    connectAnswer = SUCCEED;
    setText(params_.mmsgDirectory, std::string(128, 'd'));
    // What follows in the block is no part of the path.
    setText(params_.nvramDirectory, std::string(128, 'n'));
    std::string output = expectBugCheck(
        [] {
            showPathAtAbort();
            empInit();
        },
        "empInit", NO_CONNECTION);
    EXPECT_EQ(output.find(CONNECT_MARK), std::string::npos);
    EXPECT_NE(output.find("<path 107 " + std::string(107, 'd') + ">"), std::string::npos);
}

TEST_F(Init, EmptyDirectoryGivesTheBareName) {
    connectAnswer = SUCCEED;
    setText(params_.mmsgDirectory, "");
    outputOf(empInit);
    EXPECT_STREQ(connectedTo.sun_path, "/eventlog");
}

} // namespace
