#include "mpu_signals.h"

#include "allocations.h"
#include "altEventLog.h"
#include "failing_files.h"
#include "lib_test_support.h"
#include "mpu_params.h"
#include "startup.h"

#include <cerrno>
#include <csetjmp>
#include <cstring>
#include <ucontext.h>
#include <vector>

// The sanitizers leave these signals to the handler under test.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() {
    return "handle_segv=0:handle_sigbus=0:handle_sigill=0:handle_sigfpe=0:handle_abort=0";
}

namespace {

class Signals : public testing::Test {
  protected:
    Signals() {
        memcpy(params.nvramDirectory, directory.path().data(), directory.path().size());
        memcpy(params.serialStr, "B", 1);
        pMpuParams = &params;
    }
    ~Signals() override { pMpuParams = nullptr; }

    /** Dies in a child with the handlers installed; nothing is printed. */
    ChildEnd die(const std::function<void()>& how) {
        ChildEnd end = runInChild([&] {
            handleUnexpectedSignals();
            how();
        });
        EXPECT_TRUE(end.diedOf(SIGABRT)) << end.status;
        EXPECT_EQ(end.output, "");
        EXPECT_EQ(end.errors, "");
        return end;
    }
    std::vector<std::string> files() {
        std::vector<std::string> contents;
        for (const auto& entry : std::filesystem::directory_iterator(directory / "aelfiles")) {
            contents.push_back(readFile(entry.path()));
        }
        return contents;
    }
    std::string onlyFile() {
        std::vector<std::string> contents = files();
        EXPECT_EQ(contents.size(), 1U);
        if (contents.empty() || contents[0].size() != 504) {
            ADD_FAILURE() << "no whole event";
            return std::string(504, '?');
        }
        return contents[0];
    }
    static int native(const std::string& bytes, size_t offset) {
        int value;
        memcpy(&value, bytes.data() + offset, sizeof(value));
        return value;
    }
    static long nativeLong(const std::string& bytes, size_t offset) {
        long value;
        memcpy(&value, bytes.data() + offset, sizeof(value));
        return value;
    }
    /** Everything of a file that does not depend on the kind of signal. */
    void checkFile(const std::string& file, pid_t pid) {
        EXPECT_EQ(file.substr(0, 4), std::string("\xB6\x8F\x01\x00", 4));
        EXPECT_EQ(file.substr(8, 64), std::string(64, '\0'));
        EXPECT_EQ(file.substr(72, 64), "B" + std::string(63, '\0'));
        EXPECT_EQ(file.substr(136, 12), std::string(12, '\0'));
        EXPECT_EQ(file.substr(152, 8), std::string("\x01\x58\x12\x03\x01\x01\x00\x04", 8));
        EXPECT_EQ(file.substr(160 + 304, 16), std::string(16, '\0'));
        EXPECT_EQ(native(file, 160 + 320), pid);
        U32be_t checksum;
        memcpy(&checksum, file.data() + 4, 4);
        EXPECT_EQ(U32_t{checksum}, computeCRC32(file.data() + 8, 496));
    }
    std::string nameOf(const std::string& file) { return file.substr(160 + 324, 20); }
    void useCommandLine(const std::string& bytes) {
        writeFile(directory / "cmdline", bytes);
        path = directory / "cmdline";
        procFile = path.c_str();
    }
    std::string recordedName() {
        die([] { raise(SIGTERM); });
        return nameOf(onlyFile());
    }

    TempDirectory directory;
    MPU_PARAMS_t params = {};
    std::string path;
};

class EachSignal : public Signals, public testing::WithParamInterface<int> {};

std::string padded(std::string name) {
    name.resize(20);
    return name;
}

/** Where abort() leads instead of to the end. */
sigjmp_buf insteadOfTheEnd;

const char* const installationTexts[] = {
    "     - Unable to set sigaction for illegal instruction event.\n",
    "     - Unable to set sigaction for floating point exception event.\n",
    "     - Unable to set sigaction for segmentation violation event.\n",
    "     - Unable to set sigaction for bus error event.\n",
    "     - Unable to set sigaction for hangup event.\n",
    "     - Unable to set sigaction for termination event.\n",
    "     - Unable to set sigaction for quit event from keyboard.\n",
};

} // namespace

TEST_P(EachSignal, LeavesOneEventAndAborts) {
    ChildEnd end = die([] { kill(getpid(), GetParam()); });
    std::string file = onlyFile();
    checkFile(file, end.pid);
    EXPECT_EQ(native(file, 160), GetParam());
    // The sender's pid stands in the siginfo_t.
    siginfo_t info;
    memcpy(&info, file.data() + 160, sizeof(info));
    EXPECT_EQ(info.si_code, SI_USER);
    EXPECT_EQ(info.si_pid, end.pid);
    EXPECT_NE(file.substr(160 + 128, 176), std::string(176, '\0'));
}

INSTANTIATE_TEST_SUITE_P(All, EachSignal,
                         testing::Values(SIGILL, SIGFPE, SIGSEGV, SIGBUS, SIGHUP, SIGTERM,
                                         SIGQUIT));

TEST_F(Signals, RegistersAreThoseOfTheInterruptedCode) {
    ChildEnd end = die([] {
        // A jump to nowhere: the program counter is the address itself.
        const uintptr_t address = 0x10;
        void (*volatile nowhere)();
        memcpy(const_cast<void (**)()>(&nowhere), &address, sizeof(address));
        nowhere();
    });
    std::string file = onlyFile();
    checkFile(file, end.pid);
    EXPECT_EQ(native(file, 160), SIGSEGV);
#if defined(__powerpc__)
    EXPECT_EQ(nativeLong(file, 160 + 128 + 32 * 4), 0x10); // nip
#elif defined(__x86_64__)
    EXPECT_EQ(nativeLong(file, 160 + 128 + REG_RIP * 8), 0x10);
#endif
}

TEST_F(Signals, NoInformationAndNoContextAreZero) {
    die([] { catchEvent(SIGTERM, nullptr, nullptr); });
    EXPECT_EQ(onlyFile().substr(160, 320), std::string(320, '\0'));
}

TEST_F(Signals, NameIsTheFirstArgumentCutTo19) {
    std::string self = readFile("/proc/self/cmdline");
    self.resize(std::min<size_t>(self.find('\0'), 19));
    ASSERT_EQ(self.size(), 19U) << "the test program's path is too short for this test";
    EXPECT_EQ(recordedName(), padded(self));
}

TEST_F(Signals, ShortNameEndsAtItsNul) {
    useCommandLine(std::string("/bin/emp\0"
                               "0x100\0",
                               15));
    EXPECT_EQ(recordedName(), padded("/bin/emp"));
}

TEST_F(Signals, NameOf19CharactersIsWhole) {
    useCommandLine(std::string("/sbin/abcdefghijklm\0x", 21));
    EXPECT_EQ(recordedName(), padded("/sbin/abcdefghijklm"));
}

TEST_F(Signals, NameOf20CharactersLosesOne) {
    useCommandLine(std::string("/sbin/abcdefghijklmn\0", 21));
    EXPECT_EQ(recordedName(), padded("/sbin/abcdefghijklm"));
}

TEST_F(Signals, ShortReadWithoutANulIsTerminated) {
    useCommandLine("emp");
    EXPECT_EQ(recordedName(), padded("emp"));
}

TEST_F(Signals, LongCommandLineIsReadTo50Bytes) {
    useCommandLine(std::string(4000, 'n'));
    EXPECT_EQ(recordedName(), padded(std::string(19, 'n')));
}

TEST_F(Signals, EmptyCommandLineLeavesTheNameEmpty) {
    useCommandLine("");
    EXPECT_EQ(recordedName(), padded(""));
}

TEST_F(Signals, WithoutProcTheNameIsEmptyAndInstallationGoesOn) {
    procFile = "/nowhere/cmdline";
    EXPECT_EQ(recordedName(), padded(""));
}

TEST_F(Signals, CommandLineOfThisProcessIsOpenedAndClosed) {
    useCommandLine("emp");
    closeCalls = 0;
    EXPECT_EQ(errorsOf([] { EXPECT_EQ(handleUnexpectedSignals(), 0); }), "");
    EXPECT_EQ(openedPath, "/proc/" + std::to_string(getpid()) + "/cmdline");
    EXPECT_GE(closeCalls, 1);
}

TEST_F(Signals, HandlersHaveOnlyTheInformationFlagAndNoMask) {
    handleUnexpectedSignals();
    for (int number : {SIGILL, SIGFPE, SIGSEGV, SIGBUS, SIGHUP, SIGTERM, SIGQUIT}) {
        struct sigaction action = {};
        ASSERT_EQ(sigaction(number, nullptr, &action), 0);
        EXPECT_EQ(action.sa_sigaction, &catchEvent) << number;
        EXPECT_EQ(action.sa_flags & (SA_SIGINFO | SA_NODEFER | static_cast<int>(SA_RESETHAND) |
                                     SA_ONSTACK | SA_RESTART | SA_NOCLDSTOP),
                  SA_SIGINFO)
            << number;
        for (int other = 1; other < SIGRTMIN; other++) {
            EXPECT_EQ(sigismember(&action.sa_mask, other), 0) << number << " masks " << other;
        }
    }
    struct sigaction action = {};
    ASSERT_EQ(sigaction(SIGABRT, nullptr, &action), 0);
    EXPECT_EQ(action.sa_handler, SIG_DFL);
}

TEST_F(Signals, FailedInstallationsArePrintedInOrder) {
    failingSigaction.failAll(EINVAL);
    std::string expected;
    for (const char* text : installationTexts) {
        expected += std::string(text) + "       Invalid argument\n";
    }
    EXPECT_EQ(errorsOf([] { EXPECT_EQ(handleUnexpectedSignals(), 24); }), expected);
    EXPECT_EQ(failingSigaction.calls, 7);
}

TEST_F(Signals, OneFailedInstallationDoesNotStopTheOthers) {
    for (int failed = 0; failed < 7; failed++) {
        failingSigaction = {0, failed + 1, EPERM};
        EXPECT_EQ(errorsOf([] { handleUnexpectedSignals(); }),
                  std::string(installationTexts[failed]) + "       Operation not permitted\n");
        EXPECT_EQ(failingSigaction.calls, 7);
    }
}

TEST_F(Signals, WithoutAParameterBlockALineIsLeft) {
    pMpuParams = nullptr;
    ChildEnd end = runInChild([] {
        handleUnexpectedSignals();
        raise(SIGHUP);
    });
    EXPECT_TRUE(end.diedOf(SIGABRT)) << end.status;
    EXPECT_EQ(end.output, "altEventLogM(): AEL File not created for Requestor [18] b/s MPU "
                          "Parameters memory not initialized\n");
}

TEST_F(Signals, LinesOfAFailureAreNotLost) {
    memset(params.nvramDirectory, 0, sizeof(params.nvramDirectory));
    memcpy(params.nvramDirectory, "/nowhere", 8);
    ChildEnd end = runInChild([] {
        handleUnexpectedSignals();
        raise(SIGHUP);
    });
    EXPECT_TRUE(end.diedOf(SIGABRT)) << end.status;
    EXPECT_EQ(end.output, "openAELFileFd(): Unable to make directory /nowhere/aelfiles\n");
}

TEST_F(Signals, SuccessDoesNotFlushStandardOutput) {
    ChildEnd end = die([] {
        printf("buffered");
        raise(SIGTERM);
    });
    EXPECT_EQ(end.output, "");
}

TEST_F(Signals, SuccessAllocatesNothing) {
    ChildEnd end = runInChild([] {
        handleUnexpectedSignals();
        signal(SIGABRT, [](int) { siglongjmp(insteadOfTheEnd, 1); });
        const int counted = allocationsOf([] { free(strdup("counted")); });
        const int taken = allocationsOf([] {
            if (sigsetjmp(insteadOfTheEnd, 1) == 0) {
                raise(SIGTERM);
            }
        });
        _exit(counted > 0 ? taken : 99);
    });
    EXPECT_TRUE(end.exitedWith(0)) << end.status;
    checkFile(onlyFile(), end.pid);
}

TEST_F(Signals, SecondSignalDuringTheFirstAborts) {
    ChildEnd end = die([] {
        beforeWrite = [] { raise(SIGHUP); };
        raise(SIGTERM);
    });
    std::vector<std::string> contents = files();
    ASSERT_EQ(contents.size(), 2U);
    // The first writer was cut short before its write.
    EXPECT_EQ(std::min(contents[0].size(), contents[1].size()), 0U);
    const std::string& whole = contents[0].empty() ? contents[1] : contents[0];
    ASSERT_EQ(whole.size(), 504U);
    checkFile(whole, end.pid);
    EXPECT_EQ(native(whole, 160), SIGHUP);
}

TEST_F(Signals, BodyHasItsNamesAndSizes) {
    EXPECT_EQ(sizeof(SignalEvent_t), 344U);
    EXPECT_EQ(SUS_E_EM_MSG_STRING, 1);
    EXPECT_EQ(SUS_E_EM_MSG_MMCH, 2);
    EXPECT_EQ(SUS_E_EM_MSG_PARTIAL_MMSG, 3);
    EXPECT_EQ(SUS_E_EM_MSG_SIGNAL, 4);
}
