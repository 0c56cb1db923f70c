#include "blade.h"

#include "dying_child.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <sstream>
#include <stdexcept>

using support::Bytes;

namespace {

template <typename Field>
void setText(Field& field, const std::string& text) {
    memset(field, 0, sizeof(field));
    memcpy(field, text.data(), std::min(text.size(), sizeof(field)));
}

MPU_PARAMS_t firstParams(const support::TempDirectory& directory) {
    MPU_PARAMS_t params = {};
    params.version = MPU_PARAMS_VERSION;
    params.slotId = 3;
    setText(params.chassisSN, "CHASSIS-7");
    setText(params.serialStr, "BLADE-42");
    setText(params.mmsgDirectory, directory.makeDirectory("m"));
    setText(params.nvramDirectory, directory.makeDirectory("n"));
    return params;
}

/** Creates the block as its owner does, from a binary configuration file. */
MPU_PARAMS_t* createBlock(const std::string& path, const MPU_PARAMS_t& params, int key) {
    const char* bytes = reinterpret_cast<const char*>(&params);
    support::writeFile(path, std::string(bytes, sizeof(params)));
    unsetenv("NONXML_FILE");
    setenv("CONFIG_FILE", path.c_str(), 1);
    int shmid = -1;
    MPU_PARAMS_t* block = MPU_createMpuParams(&shmid, key);
    if (block == nullptr) {
        throw std::runtime_error("no parameter block");
    }
    return block;
}

} // namespace

Blade::Blade()
    : params_(createBlock(directory_.file("config"), firstParams(directory_), key_.value())) {}

Bytes Blade::logged(size_t offset, size_t count) const {
    std::string bytes = log().substr(offset, count);
    return Bytes(bytes.begin(), bytes.end());
}

size_t Blade::alternateFiles() const {
    std::filesystem::path path = file("n/aelfiles");
    if (!std::filesystem::exists(path)) {
        return 0;
    }
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(path), {}));
}

std::vector<std::string> Blade::commandAfter(const std::string& preparation) const {
    std::vector<std::string> words = {"sh", "-c", preparation + "; exec \"$@\"", "sh"};
    for (const std::string& word : command()) {
        words.push_back(word);
    }
    return words;
}

void Blade::listen() {
    if (!listener_) {
        listener_ = std::make_unique<support::MmsgListener>(mmsgPath());
    }
}

RunningEmp::RunningEmp(Blade& blade, const std::vector<std::string>& command)
    : process((blade.listen(), command), blade.file("emp")), msm(blade.accept()) {}

RunningEmp::~RunningEmp() {
    EXPECT_EQ(errorsOf(process), "");
}

std::vector<Bytes> RunningEmp::start() {
    std::vector<Bytes> before;
    for (;;) {
        Bytes message = msm.receive();
        if (support::headerOf(message).opcode.request.protocol == MMSG_E_PROTOCOL_STARTUP) {
            return before;
        }
        before.push_back(message);
    }
}

void RunningEmp::startQuietly() {
    EXPECT_TRUE(start().empty());
    process.waitForOutput("Wait for Event Messages.");
}

U32_t RunningEmp::log(U8_t requestor, const Bytes& data) {
    msm.send(eventMessage(requestor, data));
    Bytes copy = msm.receive();
    EXPECT_EQ(copy.size(), 216 + data.size());
    return number32(copy, 200);
}

void RunningEmp::kill() {
    process.signal(SIGKILL);
    EXPECT_EQ(process.wait(), support::diedOf(SIGKILL));
}

std::string RunningEmp::expectBugCheck(const std::string& function, const std::string& message) {
    EXPECT_EQ(process.wait(), support::diedOf(SIGABRT));
    std::string output = process.output();
    expectReport(output, function, message);
    return output;
}

Bytes eventMessage(U8_t requestor, const Bytes& data) {
    Bytes header(152);
    header[147] = 2;
    header[148] = 4;
    header[149] = 7;
    header[150] = 0x12;
    header[151] = 0x34;
    return support::makeMmsg({.type = 1, .requestor = requestor, .local = {27}},
                             joined({header, data}));
}

Bytes bareMessage(U32_t type, U8_t requestor) {
    return support::makeMmsg({.type = type, .requestor = requestor, .local = {27}});
}

Bytes joined(std::initializer_list<Bytes> pieces) {
    Bytes all;
    for (const Bytes& piece : pieces) {
        all.insert(all.end(), piece.begin(), piece.end());
    }
    return all;
}

Bytes textField(const std::string& text) {
    Bytes field(64);
    std::copy(text.begin(), text.end(), field.begin());
    return field;
}

U32_t number32(const Bytes& bytes, size_t offset) {
    U32_t value = 0;
    for (size_t i = 0; i < 4; i++) {
        value = value << 8 | bytes.at(offset + i);
    }
    return value;
}

std::string errorsOf(const support::Process& process) {
    std::string errors = process.errorOutput();
    const std::string line = "qemu: uncaught target signal 6 (Aborted) - core dumped\n";
    if (!support::runner().empty() && errors.ends_with(line)) {
        errors.resize(errors.size() - line.size());
    }
    return errors;
}

std::string statField(pid_t pid, int number) {
    std::string line = support::readFile("/proc/" + std::to_string(pid) + "/stat");
    // The second field is a name in brackets that may hold blanks.
    std::istringstream rest(line.substr(line.rfind(')') + 1));
    std::string field;
    for (int i = 2; i < number; i++) {
        rest >> field;
    }
    return field;
}
