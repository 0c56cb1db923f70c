#include "evctl/wire/running_blades.h"

#include "../run.h"
#include "ipc_key.h"
#include "mpu_gbl.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <cstring>
#include <sched.h>
#include <sstream>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

using testing::ElementsAre;
using testing::HasSubstr;

namespace {

constexpr size_t PARAMETER_BLOCK = 744;

/** A parameter block that this process has attached. */
class Block {
  public:
    explicit Block(int key, size_t size = PARAMETER_BLOCK)
        : id_(shmget(key, size, IPC_CREAT | 0600)), bytes_(shmat(id_, nullptr, 0)) {
        static_cast<char*>(bytes_)[3] = 15; // its version
        memcpy(static_cast<char*>(bytes_) + 312, "/nowhere", 9);
    }
    void keepLogIn(const char* directory) const {
        MPU_PARAMS_t& params = *static_cast<MPU_PARAMS_t*>(bytes_);
        memcpy(params.nvramDirectory, directory, strlen(directory) + 1);
    }
    void giveTo(uid_t user) const {
        struct shmid_ds segment {};
        shmctl(id_, IPC_STAT, &segment);
        segment.shm_perm.uid = user;
        shmctl(id_, IPC_SET, &segment);
    }
    ~Block() {
        shmdt(bytes_);
        shmctl(id_, IPC_RMID, nullptr);
    }
    Block(const Block&) = delete;
    Block& operator=(const Block&) = delete;

  private:
    int id_;
    void* bytes_;
};

} // namespace

TEST(RunningBlades, AreAttachedSegmentsOfTheirSize) {
    std::istringstream table(
        "       key      shmid perms                  size  cpid  lpid nattch   uid   gid  cuid\n"
        "      4660          1   600                   744 28864 28864      2     0     0     0\n"
        "      4661          2   600                   744 28864 28864      0     0     0     0\n"
        "      4662          3   600                   745 28864 28864      2     0     0     0\n"
        "        99          4   600                   744 28864 28864      2     0     0     0\n"
        "         0          5   600                   744 28864 28864      2     0     0     0\n"
        "-559038737          6   600                   744 28864 28864      2     0     0     0\n"
        "      4663          7   600                   744 28864 28864      1     0     0\n"
        "nonsense\n"
        "2147483647          8   600                   744 28864 28864      1   113     0   114\n");
    EXPECT_THAT(
        evctl::runningBlades(table),
        ElementsAre(evctl::RunningBlade{4660, 0, 0}, evctl::RunningBlade{2147483647, 113, 114}));
}

TEST(RunningBlades, TheOnlyOneIsMeantWhereNoneIsNamed) {
    unsetenv("EVCTL_KEY");
    unsetenv("EVCTL_DIR");
    if (unshare(CLONE_NEWIPC) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWIPC) != 0) {
        GTEST_SKIP() << "no namespaces: " << strerror(errno);
    }
    EXPECT_THAT(test::run({"status"}).errors, HasSubstr("no blade runs here; name one with --key"));
    Block one(0x1234);
    Block other(0x2345, PARAMETER_BLOCK + 1);
    EXPECT_THAT(test::run({"status"}).errors, HasSubstr("/nowhere/snmp: No such file"));
    Block two(0x3456);
    EXPECT_THAT(test::run({"status"}).errors,
                HasSubstr("several blades run here, with keys 0x1234 0x3456; name one"));
    for (const char* command : {"list", "verify", "map"}) { // these have no --key
        EXPECT_THAT(test::run({"file", command}).errors,
                    HasSubstr("keys 0x1234 0x3456; name one with EVCTL_KEY\n"));
    }
    EXPECT_THAT(test::run({"file", "list", "blade:"}).errors,
                HasSubstr("keys 0x1234 0x3456; name one with EVCTL_KEY, or as blade:KEY\n"));
    // Who has --key or EVCTL_KEY needs no table; an empty variable names nothing.
    setenv("EVCTL_KEY", "", 1);
    EXPECT_THAT(test::run({"status"}).errors, HasSubstr("several blades run here"));
    unsetenv("EVCTL_KEY");
}

TEST(RunningBlades, TheLogOfTheKeyIsReadWhereNoFileIsNamed) {
    support::IpcKey first;
    support::IpcKey second;
    const Block one(first.value());
    const Block two(second.value());
    one.keepLogIn("/first");
    two.keepLogIn("/second");
    setenv("EVCTL_KEY", first.text().c_str(), 1);
    for (const char* command : {"predict", "info"}) {
        EXPECT_EQ(test::run({"file", command}).errors,
                  "evctl: /first/kelta_eventlog: No such file or directory\n");
        EXPECT_EQ(test::run({"file", command, "--key", second.text()}).errors,
                  "evctl: /second/kelta_eventlog: No such file or directory\n");
        EXPECT_EQ(test::run({"file", command, "/third", "--key", second.text()}).errors,
                  "evctl: /third: No such file or directory\n");
    }
    unsetenv("EVCTL_KEY");
}

TEST(RunningBlades, AnotherUsersBlockCountsOnlyWhenAskedFor) {
    unsetenv("EVCTL_KEY");
    unsetenv("EVCTL_DIR");
    if (geteuid() != 0 || unshare(CLONE_NEWIPC) != 0) {
        GTEST_SKIP() << "only root can give a block away";
    }
    Block theirs(0x1234);
    theirs.giveTo(12345);
    EXPECT_THAT(test::run({"status"}).errors, HasSubstr("only other users' blades run here"));
    EXPECT_THAT(test::run({"status", "--any-owner"}).errors, HasSubstr("/nowhere/snmp: No such"));
    Block ours(0x2345);
    EXPECT_THAT(test::run({"status"}).errors, HasSubstr("/nowhere/snmp: No such file"));
    EXPECT_THAT(test::run({"status", "--any-owner"}).errors, HasSubstr("several blades run here"));
}

// Root may read all of them, so it is somebody else for the while.
TEST(RunningBlades, OfABlockThatMayNotBeReadThatIsSaidInOneLine) {
    support::IpcKey key;
    const int id = shmget(key.value(), PARAMETER_BLOCK, IPC_CREAT | IPC_EXCL);
    ASSERT_GE(id, 0);
    const uid_t user = geteuid();
    ASSERT_EQ(user == 0 ? seteuid(12345) : 0, 0);
    const test::Said said = test::run({"status", "--key", key.text()});
    ASSERT_EQ(seteuid(user), 0);
    shmctl(id, IPC_RMID, nullptr);
    std::ostringstream text;
    text << "evctl: the parameter block under key 0x" << std::hex << key.value()
         << " is another user's: Permission denied\n";
    EXPECT_EQ(said.status, 2);
    EXPECT_EQ(said.errors, text.str());
}

// The library has lines of its own for it.
TEST(RunningBlades, OfABlockThatIsNotThereThatIsSaidInOneLine) {
    for (const std::vector<std::string>& command :
         {std::vector<std::string>{"status"}, {"params", "show"}, {"ael", "list"}}) {
        std::vector<std::string> arguments = command;
        arguments.insert(arguments.end(), {"--key", "2147483633"});
        EXPECT_EQ(test::run(arguments).errors, "evctl: no parameter block under key 0x7ffffff1\n");
    }
}

// A log of the one and the switch of the other, or files of the one and events of the other.
TEST(RunningBlades, AreNotMixedUpByADirectory) {
    unsetenv("EVCTL_KEY");
    unsetenv("EVCTL_DIR");
    EXPECT_THAT(test::run({"top", "--dir", "/nowhere", "--batch"}).errors,
                HasSubstr("top: without LOG needs --key: it names the log, not --dir"));
    setenv("EVCTL_DIR", "/nowhere", 1);
    EXPECT_THAT(test::run({"top", "--batch"}).errors, HasSubstr("it names the log, not EVCTL_DIR"));
    EXPECT_THAT(
        test::run({"log", "--id", "7", "--text", "x", "--or-ael"}).errors,
        HasSubstr("--or-ael: needs --key: it names the directory of the files, not EVCTL_DIR"));
    // The block that is named says all of it.
    setenv("EVCTL_KEY", "0x7ffffff2", 1);
    EXPECT_THAT(test::run({"log", "--id", "7", "--text", "x", "--or-ael"}).errors,
                HasSubstr("no parameter block under key 0x7ffffff2"));
    EXPECT_THAT(test::run({"top", "--batch"}).errors,
                HasSubstr("no parameter block under key 0x7ffffff2"));
    unsetenv("EVCTL_KEY");
    unsetenv("EVCTL_DIR");
}
