#include "store_fixture.h"

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/** "Mon dd hh:mm:ss" and two blanks. */
constexpr size_t STAMP = 17;

bool beginsWithStamp(const std::string& line) {
    return line.size() >= STAMP && line[3] == ' ' && line[6] == ' ' && line[9] == ':' &&
           line[12] == ':' && line[15] == ' ' && line[16] == ' ' && isupper(line[0]) != 0 &&
           islower(line[1]) != 0;
}

std::string lineAfter(const std::string& output, const std::string& label) {
    size_t at = output.rfind(label);
    if (at == std::string::npos) {
        return "";
    }
    at += label.size();
    return output.substr(at, output.find('\n', at) - at);
}

void setText(U8_t* to, const char* text) {
    memset(to, 0, 64);
    memcpy(to, text, strlen(text));
}

/** A file for output that is gone when it is closed. */
int openOutputFile() {
    std::string path = testing::TempDir() + "out.XXXXXX";
    int fd = mkstemp(path.data());
    unlink(path.c_str());
    return fd;
}

std::string readAll(int fd) {
    std::string text;
    lseek(fd, 0, SEEK_SET);
    char piece[65'536];
    for (ssize_t got = read(fd, piece, sizeof(piece)); got > 0;
         got = read(fd, piece, sizeof(piece))) {
        text.append(piece, static_cast<size_t>(got));
    }
    return text;
}

} // namespace

MPU_PARAMS_t StoreTest::parameters;

std::ostream& operator<<(std::ostream& out, const LogState& state) {
    return out << "W " << state.write << " S " << state.start << " Q0 " << state.startId << " Qn "
               << state.nextId << " wrap " << state.wrapOver << " gap " << state.foundGap << " in "
               << state.inFile << " add " << state.added << " del " << state.deleted << " inst "
               << state.instance;
}

std::string withoutStamps(const std::string& output) {
    std::string result;
    size_t begin = 0;
    while (begin < output.size()) {
        size_t end = output.find('\n', begin);
        end = end == std::string::npos ? output.size() : end + 1;
        std::string line = output.substr(begin, end - begin);
        result += beginsWithStamp(line) ? line.substr(STAMP) : line;
        begin = end;
    }
    return result;
}

StoreTest::StoreTest() {
    std::string name = testing::TempDir() + "store.XXXXXX";
    directory = mkdtemp(name.data());
    logPath = directory + "/kelta_eventlog";
    debugPath = logPath + ".debug";
    int pair[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) == 0) {
        int size = 1 << 20;
        setsockopt(pair[0], SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
        fcntl(pair[1], F_SETFL, O_NONBLOCK);
    }
    msmPeer = pair[1];
    memset(&parameters, 0, sizeof(parameters));
    parameters.version = MPU_PARAMS_VERSION;
    parameters.slotId = logimage::SLOT;
    setText(parameters.chassisSN, logimage::ENCLOSURE);
    setText(parameters.serialStr, logimage::BLADE);
    memcpy(parameters.nvramDirectory, directory.data(), directory.size());
    memcpy(parameters.mmsgDirectory, directory.data(), directory.size());
    oMpuParams = &parameters;
    hooks::state = hooks::State{};
    empControl.eventLogFileFd = 0;
    empControl.socketFdMSM = pair[0];
    restart();
}

StoreTest::~StoreTest() {
    hooks::reset();
    if (empControl.eventLogFileFd > 2) {
        close(empControl.eventLogFileFd);
    }
    empControl.eventLogFileFd = 0;
    close(empControl.socketFdMSM);
    close(msmPeer);
    std::error_code ignored;
    std::filesystem::remove_all(directory, ignored);
}

void StoreTest::restart() {
    if (empControl.eventLogFileFd > 2) {
        close(empControl.eventLogFileFd);
    }
    int msm = empControl.socketFdMSM;
    empControl = EmpControl_t{};
    memset(static_cast<void*>(eventEntryDatabase), 0, sizeof(eventEntryDatabase));
    memset(eventEntryWorkSpace, 0, sizeof(eventEntryWorkSpace));
    memset(nullEmpEnclosureId, 0, sizeof(nullEmpEnclosureId));
    empControl.socketFdMSM = msm;
    empControl.empWrapOver = EMP_E_WRAP_OVER_FALSE;
    empControl.empDebug = 1;
    empControl.empEventArchiverHandle = 1000;
    empControl.evArchiverSocketState = EMP_E_ARCHIVER_SOCKET_ST_CLOSE;
    empControl.reconnectTimeout.tv_sec = 300;
    empControl.forwardTimeout.tv_sec = 5;
    memcpy(empControl.empEnclosureId, parameters.chassisSN, 64);
    memcpy(empControl.empBladeId, parameters.serialStr, 64);
    empControl.empSlotId = parameters.slotId;
}

void StoreTest::putImage(const logimage::Bytes& bytes) {
    // What has been read ahead of a file that others change is not what is in it.
    empWindowOpen(0);
    std::ofstream file(logPath, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    ASSERT_TRUE(file.good());
}

logimage::Bytes StoreTest::readLog() const {
    logimage::Bytes bytes(static_cast<size_t>(std::filesystem::file_size(logPath)));
    std::ifstream(logPath, std::ios::binary)
        .read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return bytes;
}

EMP_SCAN_OUTCOME_e StoreTest::scanImage(const logimage::Image& image) {
    return scanImage(image.bytes);
}

EMP_SCAN_OUTCOME_e StoreTest::scanImage(const logimage::Bytes& bytes) {
    putImage(bytes);
    restart();
    EMP_SCAN_OUTCOME_e outcome = EMP_E_SCAN_DONE;
    outputOf([&] { outcome = empScanEventLogFile(); });
    return outcome;
}

void StoreTest::append(size_t size, uint8_t source, uint16_t evId) {
    appendBody(logimage::Record::event(empControl.empSequenceId, size).body, source, evId);
}

void StoreTest::appendBody(const logimage::Bytes& body, uint8_t source, uint16_t evId) {
    logimage::Record record;
    record.body = body;
    record.length = static_cast<uint16_t>(body.size());
    record.id = empControl.empSequenceId++;
    record.instance = empControl.empInstanceNumber;
    if (empControl.empSequenceId == 0) {
        empControl.empInstanceNumber++;
    }
    record.source = source;
    record.evId = evId;
    record.time = hooks::state.clock != 0 ? hooks::state.clock : logimage::TIME;
    logimage::Bytes entry = logimage::encode(record);
    // Behind the 64 bytes of the message header come the record's bytes from 8 on.
    static logimage::Bytes message;
    message.assign(64, 0);
    logimage::put16(message, 10, static_cast<uint16_t>(64 + entry.size() - 8));
    message.insert(message.end(), entry.begin() + 8, entry.end());
    empSaveEventLogMsgToLogFile(reinterpret_cast<const MMSG_t*>(message.data()));
}

ChildEnd StoreTest::inChild(const std::function<void()>& action) const {
    fflush(stdout);
    int file = openOutputFile();
    pid_t child = fork();
    if (child == 0) {
        dup2(file, STDOUT_FILENO);
        hooks::resetCounts();
        action();
        fflush(stdout);
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ChildEnd end;
    end.aborted = WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT;
    end.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    end.output = withoutStamps(readAll(file));
    end.message = lineAfter(end.output, "| Message:   ");
    end.function = lineAfter(end.output, "| Function:  ");
    close(file);
    return end;
}

std::string StoreTest::outputOf(const std::function<void()>& action) {
    fflush(stdout);
    int file = openOutputFile();
    int saved = dup(STDOUT_FILENO);
    dup2(file, STDOUT_FILENO);
    auto putBack = [&] {
        fflush(stdout);
        dup2(saved, STDOUT_FILENO);
        close(saved);
        std::string output = withoutStamps(readAll(file));
        close(file);
        return output;
    };
    try {
        action();
    } catch (...) {
        outputBeforeBugCheck = putBack();
        throw;
    }
    return putBack();
}

ChildEnd StoreTest::expectBugCheck(const std::function<void()>& action, const std::string& message,
                                   const std::string& function) const {
    ChildEnd end = inChild(action);
    EXPECT_TRUE(end.aborted) << "exit status " << end.exitStatus;
    EXPECT_EQ(end.message, message);
    EXPECT_EQ(end.function, function);
    return end;
}

LogState StoreTest::state() {
    return {empControl.empWrite,
            empControl.empStart,
            empControl.empStartSequenceId,
            empControl.empSequenceId,
            empControl.empWrapOver,
            empControl.foundGap,
            empControl.empEventInLogFile,
            empControl.empEventAddToLogFile,
            empControl.empEventDelFromLogFile,
            empControl.empInstanceNumber};
}

uint32_t StoreTest::validSlots() {
    uint32_t valid = 0;
    for (uint32_t slot = 0; slot < 10'000; slot++) {
        valid += eventEntryDatabase[slot].evFlag == 1 ? 1 : 0;
    }
    return valid;
}

int64_t StoreTest::position() {
    return empLogFilePosition;
}
