#include "model_fixture.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

// empFault(const char*, int, const char*, const char*, ...) under its linker name.
extern "C" [[noreturn]] void __wrap__Z8empFaultPKciS0_S0_z(const char* fileName, int lineNo,
                                                           const char* fnName, const char* msg, ...)
    __attribute__((format(printf, 4, 5)));

extern "C" void __wrap__Z8empFaultPKciS0_S0_z(const char* fileName, int lineNo, const char* fnName,
                                              const char* msg, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, msg);
    vsnprintf(text, sizeof(text), msg, arguments);
    va_end(arguments);
    EXPECT_STREQ(fileName, "empmain");
    EXPECT_GT(lineNo, 0);
    throw hooks::BugCheck{text, fnName};
}

std::string ModelTest::scanBoth(const logimage::Image& image) {
    putImage(image);
    model.file = image.bytes;
    return restartBoth();
}

void ModelTest::openImage(const logimage::Image& image) {
    putImage(image);
    restart();
    model.file = image.bytes;
    model.restart();
    empLogTake(open(logPath.c_str(), O_RDWR));
}

std::string ModelTest::restartBoth() {
    restart();
    model.debugPath = debugPath;
    model.restart();
    if (!debugLines_) {
        empControl.empDebug = 0;
    }
    bool modelRebuilt = false;
    rebuilt = false;
    std::string bugCheck = both([&] { rebuilt = empScanEventLogFile() == EMP_E_SCAN_REBUILT; },
                                [&] { modelRebuilt = model.scan(); });
    EXPECT_EQ(rebuilt, modelRebuilt) << where;
    return bugCheck;
}

std::string ModelTest::appendBoth(size_t size, uint8_t source, uint16_t evId) {
    return appendBodyBoth(logimage::Record::event(model.nextId, size).body, source, evId);
}

std::string ModelTest::appendBodyBoth(const logimage::Bytes& body, uint8_t source, uint16_t evId) {
    return both([&] { appendBody(body, source, evId); }, [&] { model.append(body, source, evId); });
}

std::string ModelTest::both(const std::function<void()>& product,
                            const std::function<void()>& modelled) {
    std::string bugCheck;
    std::string function;
    std::string expected;
    std::string expectedFunction;
    try {
        lastOutput = outputOf(product);
    } catch (const hooks::BugCheck& thrown) {
        bugCheck = thrown.text;
        function = thrown.function;
        lastOutput = outputBeforeBugCheck;
    }
    model.output.clear();
    try {
        modelled();
    } catch (const logmodel::BugCheck& thrown) {
        expected = thrown.text;
        expectedFunction = thrown.function;
    }
    EXPECT_EQ(bugCheck, expected) << where;
    EXPECT_EQ(function, expectedFunction) << where;
    lastFunction = function;
    expectSame(bugCheck);
    return bugCheck;
}

void ModelTest::expectSame(const std::string& bugCheck) {
    LogState wanted{model.write,
                    model.start,
                    model.startId,
                    model.nextId,
                    model.wrapped ? WRAP_TRUE : WRAP_FALSE,
                    model.foundGap ? 1 : 0,
                    model.inFile,
                    model.added,
                    model.deleted,
                    model.instance};
    EXPECT_EQ(state(), wanted) << where;
    for (uint32_t slot = 0; slot < 10'000; slot++) {
        const EmpEvDatabase_t& entry = eventEntryDatabase[slot];
        const logmodel::IndexEntry& other = model.index[slot];
        ASSERT_TRUE(entry.evFlag == (other.valid ? 1 : 0) && entry.evOffset == other.offset)
            << "slot " << slot << " " << where;
    }
    expectSameFile(logPath, model.file);
    EXPECT_EQ(access(debugPath.c_str(), F_OK) == 0, model.debugCopyThere) << where;
    if (model.debugCopyThere) {
        expectSameFile(debugPath, model.debugCopy);
    }
    EXPECT_EQ(position(), static_cast<int64_t>(model.position)) << where << " " << bugCheck;
    // Whether this one is preceded by a dump is open.
    if (debugLines_ && bugCheck != "Reach Dummy Entry but still not enough space!" &&
        lastOutput != model.output) {
        auto differ = std::mismatch(lastOutput.begin(), lastOutput.end(), model.output.begin(),
                                    model.output.end());
        auto at = static_cast<size_t>(differ.first - lastOutput.begin());
        size_t from = at < 200 ? 0 : at - 200;
        ADD_FAILURE() << where << "\noutput differs at " << at << ":\n"
                      << lastOutput.substr(from, 500) << "\n--- expected:\n"
                      << model.output.substr(from, 500);
    }
}

void ModelTest::expectSameFile(const std::string& path, const logimage::Bytes& wanted) {
    static logimage::Bytes bytes;
    int fd = open(path.c_str(), O_RDONLY);
    bytes.resize(wanted.size() + 1);
    ssize_t got = read(fd, bytes.data(), bytes.size());
    close(fd);
    ASSERT_EQ(got, static_cast<ssize_t>(wanted.size())) << where;
    if (memcmp(bytes.data(), wanted.data(), wanted.size()) != 0) {
        auto differ = std::mismatch(wanted.begin(), wanted.end(), bytes.begin());
        auto at = static_cast<size_t>(differ.first - wanted.begin());
        ADD_FAILURE() << where << "\n"
                      << path << " differs at " << at << "\n"
                      << logmodel::hexDumpText(logimage::slice(bytes, at, 160)) << "expected:\n"
                      << logmodel::hexDumpText(logimage::slice(wanted, at, 160));
    }
}
