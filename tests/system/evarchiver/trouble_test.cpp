/** An archiver whose archive cannot be written for a while. */
#include "archive_lock.h"
#include "blade_link.h"
#include "program.h"

#include <gmock/gmock.h>

#include <csignal>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace support;
using testing::HasSubstr;
using testing::Not;

namespace {

class TroubleTest : public ArchiverProcessTest {
  protected:
    // Below a shell that prepares what the archiver finds.
    void startBehind(const std::string& preparation, const std::string& arguments = "") {
        archiver_ = std::make_unique<Process>(
            std::vector<std::string>{"bash", "-c",
                                     preparation + "; exec " + program("evarchiver") +
                                         " --listen 127.0.0.1:0 --progress 0 --db " + database_ +
                                         " " + arguments},
            directory_.file("run" + std::to_string(++starts_)));
        const std::string line = archiver_->waitForOutput("listening on 127.0.0.1:");
        port_ = static_cast<U16_t>(std::stoi(line.substr(line.find(':') + 1)));
    }
};

// Gives this process mounts of its own, which nobody else sees. Its root directory need not be a
// mount itself: the way to one leads through the namespace, and back.
bool takeOwnMounts() {
    if (unshare(CLONE_NEWNS) != 0) {
        return false;
    }
    const int root = open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
    const int here = open(".", O_PATH | O_DIRECTORY | O_CLOEXEC);
    const int space = open("/proc/self/ns/mnt", O_RDONLY | O_CLOEXEC);
    setns(space, CLONE_NEWNS); // makes the namespace's root this process's
    const bool isOwn = mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    const int error = errno;
    if (fchdir(root) != 0 || chroot(".") != 0 || fchdir(here) != 0) {
        abort(); // names would mean other files
    }
    for (const int descriptor : {root, here, space}) {
        close(descriptor);
    }
    errno = error;
    return isOwn;
}

std::chrono::milliseconds since(std::chrono::steady_clock::time_point begun) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 begun);
}

} // namespace

TEST_F(TroubleTest, FullDiskMakesEventsWaitAndLosesNone) {
    const std::string disk = directory_.makeDirectory("disk");
    if (!takeOwnMounts() || mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=3m") != 0) {
        GTEST_SKIP() << "no file systems of its own: " << strerror(errno);
    }
    database_ = disk + "/events.db";
    const std::string filler = disk + "/filler";
    start({"--progress", "0"});
    BladeLink link(port_);
    claim(link, event(0));
    {
        const int file = open(filler.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
        const std::string block(4096, 'x');
        while (write(file, block.data(), block.size()) > 0) {
        }
        close(file);
    }
    link.send(events(0, 2000)); // taken all the same
    EXPECT_THAT(archiver_->waitForOutput("events wait, tried again"), HasSubstr("disk"));
    ASSERT_EQ(unlink(filler.c_str()), 0);
    EXPECT_EQ(claim(link, event(0)), (Claim{1999, 0}));
    EXPECT_THAT(archiver_->output(), HasSubstr("can be written again"));
    EXPECT_EQ(stop(), exitedWith(0));
    EXPECT_EQ(umount(disk.c_str()), 0);
}

TEST_F(TroubleTest, FileThatMayNotGrowDoesNotEndTheArchiver) {
    startBehind("ulimit -S -f 200");
    BladeLink link(port_);
    claim(link, event(0));
    link.send(events(0, 3000));
    archiver_->waitForOutput("events wait, tried again");
    // Whoever gives it room again finds everything.
    rlimit room{};
    ASSERT_EQ(prlimit(archiver_->pid(), RLIMIT_FSIZE, nullptr, &room), 0);
    room.rlim_cur = room.rlim_max;
    ASSERT_EQ(prlimit(archiver_->pid(), RLIMIT_FSIZE, &room, nullptr), 0);
    EXPECT_EQ(claim(link, event(0)), (Claim{2999, 0}));
    EXPECT_EQ(stop(), exitedWith(0));
}

TEST_F(TroubleTest, ArchiverThatEndsWithoutRoomSaysThatNotAllIsSafe) {
    startBehind("ulimit -f 200");
    BladeLink link(port_);
    claim(link, event(0));
    link.send(events(0, 3000));
    archiver_->waitForOutput("events wait, tried again");
    archiver_->signal(SIGTERM);
    EXPECT_EQ(archiver_->wait(std::chrono::seconds(20)), exitedWith(1));
    EXPECT_THAT(archiver_->output(), HasSubstr("not all that came is in the archive"));
}

TEST_F(TroubleTest, AllThatABladeSendsIsTakenWhileTheArchiveIsLocked) {
    start({"--progress", "0", "--receive-buffer", "4096"});
    BladeLink link(port_, 4096);
    claim(link, event(0));
    ArchiveLock lock(database_);
    link.send(events(0, 8000)); // much more than the wire holds
    lock.release();
    EXPECT_EQ(claim(link, event(0)), (Claim{7999, 0}));
    EXPECT_EQ(stop(), exitedWith(0));
}

TEST_F(TroubleTest, InquiryIsAnsweredInTimeWhileTheArchiveIsLocked) {
    start({"--progress", "0", "--answer-wait", "1"});
    BladeLink link(port_);
    claim(link, event(0));
    link.send(events(0, 9));
    ASSERT_EQ(claim(link, event(0)), (Claim{8, 0}));
    ArchiveLock lock(database_);
    const auto begun = std::chrono::steady_clock::now();
    link.send(events(10, 20)); // they are in the way
    const Bytes answer = link.ask(inquiryMessage(EXACT, {"ENC-A", "BLADE-1", 1, 1}, 5, 77));
    EXPECT_GE(since(begun), std::chrono::milliseconds(1000));
    EXPECT_LT(since(begun), std::chrono::milliseconds(5000));
    EXPECT_EQ(get32(answer, 8), 3U); // cannot be had now
    EXPECT_EQ(get32(answer, 12), 77U);
    EXPECT_EQ(getText(answer, 16), "ENC-A");
    lock.release();
    EXPECT_EQ(claim(link, event(0)), (Claim{19, 0})); // and the late answer does not come as well
    EXPECT_EQ(stop(), exitedWith(0));
}

TEST_F(TroubleTest, StatusRequestThatIsNotAnsweredInTimeClosesTheLink) {
    start({"--progress", "0", "--answer-wait", "1"});
    BladeLink link(port_);
    claim(link, event(0));
    ArchiveLock lock(database_);
    link.send(events(0, 9) + statusOf(event(0)));
    EXPECT_TRUE(link.isClosed());
    archiver_->waitForOutput("the archive does not answer, closed");
    lock.release();
    BladeLink again(port_);
    EXPECT_EQ(claim(again, event(0)), (Claim{8, 0}));
    EXPECT_EQ(stop(), exitedWith(0));
}

TEST_F(TroubleTest, SlowArchiveDelaysNobodysConnectionAndLosesNothing) {
    start({"--progress", "0"});
    std::vector<std::unique_ptr<BladeLink>> links;
    for (U32_t blade = 0; blade < 20; ++blade) {
        links.push_back(std::make_unique<BladeLink>(port_));
        claim(*links.back(), event(0, {.slot = blade}));
    }
    std::chrono::steady_clock::duration longest{};
    for (int round = 0; round < 3; ++round) {
        const auto begun = std::chrono::steady_clock::now();
        ArchiveLock lock(database_);
        for (U32_t blade = 0; blade < 20; ++blade) {
            const U32_t first = static_cast<U32_t>(round) * 50;
            // A send that waited would run into its time-out, not only be slow.
            links[blade]->send(events(first, first + 49, {.slot = blade}));
        }
        lock.holdFor(std::chrono::milliseconds(200));
        longest = std::max(longest, std::chrono::steady_clock::now() - begun);
    }
    for (U32_t blade = 0; blade < 20; ++blade) {
        EXPECT_EQ(claim(*links[blade], event(0, {.slot = blade})), (Claim{148, 0})) << blade;
    }
    EXPECT_EQ(stop(), exitedWith(0));
    EXPECT_THAT(archiver_->output(), HasSubstr(" 0 duplicates dropped, 0 generations"));
    // A lock that a busy machine makes longer than the archiver's patience is told of.
    if (longest < std::chrono::milliseconds(900)) {
        EXPECT_THAT(archiver_->output(), Not(HasSubstr(" error: ")));
    }
}
