/** evctl file salvage: what each of its inputs is taken for, and what is said of those that nothing
 * can be taken of. */
#include "../../evlog/log_image.h"
#include "../run.h"

#include "temp_directory.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

using test::Said;
using testing::HasSubstr;

namespace {

class SalvageInputFiles : public testing::Test {
  protected:
    std::string write(const std::string& name, const std::string& bytes) const {
        support::writeFile(directory_.file(name), bytes);
        return directory_.file(name);
    }
    static Said salvage(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"file", "salvage"});
        return test::run(arguments);
    }
    /** First entry, then events with that data. */
    static test::LogImage logOf(const std::vector<std::string>& bodies) {
        test::LogImage log;
        log.firstEntry();
        for (uint32_t id = 1; id <= bodies.size(); id++) {
            log.raw(test::record({.id = id}, bodies[id - 1]));
        }
        log.dummy();
        log.zerosTo();
        return log;
    }
    static std::string waitingEvent() { return test::record({.instance = 0}, "waits"); }

    support::TempDirectory directory_;
};

/** What root may read, this user may not. */
class AsAnotherUser {
  public:
    AsAnotherUser() { EXPECT_TRUE(geteuid() != 0 || seteuid(12347) == 0); }
    ~AsAnotherUser() { EXPECT_TRUE(getuid() != 0 || seteuid(0) == 0); }
    AsAnotherUser(const AsAnotherUser&) = delete;
    AsAnotherUser& operator=(const AsAnotherUser&) = delete;
};

} // namespace

TEST_F(SalvageInputFiles, OfADirectoryTheLogCountsBeforeTheLogsThatWereSetAside) {
    write("kelta_eventlog", logOf({"same", "of the log"}).bytes);
    write("kelta_eventlog.fatal-20061121T140000Z", logOf({"same", "set aside"}).bytes);
    support::TempDirectory made;
    Said said = salvage({directory_.path(), "--output", made.file("new")});
    EXPECT_EQ(said.status, 1);
    EXPECT_THAT(said.output, HasSubstr("1 left out: an earlier file has other bytes"));
    EXPECT_NE(support::readFile(made.file("new")).find("of the log"), std::string::npos);
}

TEST_F(SalvageInputFiles, ALinkOfADirectoryThatLeadsNowhereIsSaid) {
    ASSERT_EQ(symlink("nowhere", directory_.file("kelta_eventlog").c_str()), 0);
    write("kelta_eventlog.debug", logOf({"one"}).bytes);
    Said said = salvage({directory_.path(), "--dry-run"});
    EXPECT_EQ(said.status, 1);
    EXPECT_THAT(said.output, HasSubstr("2 events saved"));
    EXPECT_EQ(said.errors,
              "evctl: " + directory_.file("kelta_eventlog") + ": No such file or directory\n");
}

TEST_F(SalvageInputFiles, ADirectoryThatMayBeListedButNotEnteredIsNotTakenForAnEmptyOne) {
    const std::string closed = directory_.makeDirectory("closed");
    write("closed/kelta_eventlog", logOf({"one"}).bytes);
    ASSERT_EQ(chmod(directory_.path().c_str(), 0755), 0);
    ASSERT_EQ(chmod(closed.c_str(), 0444), 0);
    Said said;
    {
        const AsAnotherUser user;
        said = salvage({closed, "--dry-run"});
    }
    ASSERT_EQ(chmod(closed.c_str(), 0755), 0);
    EXPECT_EQ(said.status, 2);
    EXPECT_THAT(said.errors, HasSubstr("closed/kelta_eventlog: Permission denied"));
}

TEST_F(SalvageInputFiles, AnAlternateEventThatMayNotBeReadIsNotTakenForADamagedOne) {
    write("kelta_eventlog", logOf({"one"}).bytes);
    const std::string closed = write("kelta_alteventlog1.aaaaaa", waitingEvent());
    ASSERT_EQ(chmod(directory_.path().c_str(), 0755), 0);
    ASSERT_EQ(chmod(closed.c_str(), 0), 0);
    const AsAnotherUser user;
    Said said = salvage({directory_.path(), "--dry-run"});
    EXPECT_EQ(said.status, 1);
    EXPECT_EQ(said.output, "2 events saved, ids 0 to 1; nothing written\n");
    EXPECT_EQ(said.errors, "evctl: " + closed + ": Permission denied\n");
}

TEST_F(SalvageInputFiles, ADamagedAlternateEventIsLeftOutAndThatIsAllThatIsSaidOfIt) {
    const std::string log = write("log", logOf({"one"}).bytes);
    const std::string damaged = write("kelta_alteventlog1.aaaaaa", "no record");
    Said said = salvage({log, damaged, "--dry-run"});
    EXPECT_EQ(said.status, 1);
    EXPECT_EQ(said.errors, "");
    EXPECT_EQ(said.output, "1 left out: no valid record in this alternate event file\n  " +
                               damaged +
                               " offset 0, id 0: no valid record in this alternate event file\n"
                               "2 events saved, ids 0 to 1; nothing written\n");
}

TEST_F(SalvageInputFiles, TheNewLogHasThePermissionsOfALogNotOfAnAlternateEvent) {
    const std::string waiting = write("kelta_alteventlog1.aaaaaa", waitingEvent());
    ASSERT_EQ(chmod(waiting.c_str(), 0666), 0);
    const std::string log = write("log", logOf({"one"}).bytes);
    ASSERT_EQ(chmod(log.c_str(), 0600), 0);
    Said said = salvage({waiting, log, "--output", directory_.file("new")});
    EXPECT_EQ(said.status, 0) << said.errors;
    struct stat status {};
    ASSERT_EQ(stat(directory_.file("new").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(SalvageInputFiles, OfDamagedStretchesTheFirstTwentyAreShown) {
    test::LogImage log = logOf(std::vector<std::string>(50, "event"));
    for (size_t record = 0; record < 22; record++) {
        log.damage(200 + record * 2 * 165 + 100);
    }
    Said said = salvage({write("log", log.bytes), "--dry-run"});
    EXPECT_THAT(said.output, HasSubstr("... and 2 more; --json has all\n"));
    EXPECT_EQ(std::ranges::count(said.output, '\n'), 20 + 1 + 1);
}
