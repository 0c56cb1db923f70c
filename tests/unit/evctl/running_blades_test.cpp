#include "evctl/running_blades.h"

#include "run.h"

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
        "       key      shmid perms                  size  cpid  lpid nattch   uid\n"
        "      4660          1   600                   744 28864 28864      2     0\n"
        "      4661          2   600                   744 28864 28864      0     0\n"
        "      4662          3   600                   745 28864 28864      2     0\n"
        "        99          4   600                   744 28864 28864      2     0\n"
        "         0          5   600                   744 28864 28864      2     0\n"
        "-559038737          6   600                   744 28864 28864      2     0\n"
        "nonsense\n"
        "2147483647          7   600                   744 28864 28864      1     0\n");
    EXPECT_THAT(evctl::keysOfRunningBlades(table), ElementsAre(4660, 2147483647));
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
}
