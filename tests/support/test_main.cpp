/**
 * @file
 * Runs each test in a process of its own, forked from this one, so that the state of what is tested
 * is always fresh. To start the program for each test does the same, but takes longer than most
 * tests do, under emulation most of all. One test alone runs in this process, for a debugger.
 */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr unsigned DEADLINE = 300; ///< of one test, in seconds; TEST_DEADLINE is another one
constexpr int SKIPPED = 77;        ///< status of a test's process

/** Notes the tests that the framework is about to run, then leaves it. */
class Chosen : public testing::EmptyTestEventListener {
  public:
    struct Noted {};

    explicit Chosen(std::vector<std::string>& names) : names_(names) {}

    void OnTestIterationStart(const testing::UnitTest& unit, int) override {
        for (int i = 0; i < unit.total_test_suite_count(); ++i) {
            const testing::TestSuite& suite = *unit.GetTestSuite(i);
            for (int k = 0; k < suite.total_test_count(); ++k) {
                if (suite.GetTestInfo(k)->should_run()) {
                    names_.push_back(std::string(suite.name()) + "." +
                                     suite.GetTestInfo(k)->name());
                }
            }
        }
        throw Noted();
    }

  private:
    std::vector<std::string>& names_;
};

/** The tests that the command line and the shard ask for. */
std::vector<std::string> chosenTests() {
    std::vector<std::string> names;
    testing::TestEventListeners& listeners = testing::UnitTest::GetInstance()->listeners();
    const bool catching = GTEST_FLAG_GET(catch_exceptions);
    testing::TestEventListener* printer = listeners.Release(listeners.default_result_printer());
    auto* chosen = new Chosen(names);
    listeners.Append(chosen);
    GTEST_FLAG_SET(catch_exceptions, false);
    try {
        [[maybe_unused]] const int status = RUN_ALL_TESTS();
    } catch (const Chosen::Noted&) {
        // That was all it was to do.
    }
    GTEST_FLAG_SET(catch_exceptions, catching);
    delete listeners.Release(chosen);
    listeners.Append(printer);
    return names;
}

/** Runs a test in this process. @return the status to end with */
int runHere(const std::string& name) {
    unsetenv("GTEST_TOTAL_SHARDS");
    unsetenv("GTEST_SHARD_INDEX");
    GTEST_FLAG_SET(filter, name);
    const int status = RUN_ALL_TESTS();
    return status == 0 && testing::UnitTest::GetInstance()->skipped_test_count() > 0 ? SKIPPED
                                                                                     : status;
}

unsigned deadline() {
    const char* text = std::getenv("TEST_DEADLINE");
    return text != nullptr ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : DEADLINE;
}

/** What there is to say of a test that has failed, by the status of its process. */
std::string failureOf(const std::string& name, int status) {
    if (!WIFSIGNALED(status)) {
        return name;
    }
    return name + (WTERMSIG(status) == SIGALRM
                       ? ", not done after " + std::to_string(deadline()) + " s"
                       : ", by signal " + std::to_string(WTERMSIG(status)));
}

/** Runs a test in a process of its own. @return its status, as waitpid() gives it */
int runApart(const std::string& name) {
    std::fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        alarm(deadline());
        std::exit(runHere(name));
    }
    int status = -1;
    if (child > 0) {
        waitpid(child, &status, 0);
    }
    return status;
}

} // namespace

int main(int argc, char** argv) {
    testing::InitGoogleMock(&argc, argv);
    if (GTEST_FLAG_GET(list_tests)) {
        return RUN_ALL_TESTS();
    }
    const std::vector<std::string> names = chosenTests();
    if (names.size() == 1) {
        const int status = runHere(names.front());
        return status == SKIPPED ? 0 : status;
    }
    std::vector<std::string> failed;
    size_t skipped = 0;
    for (const std::string& name : names) {
        const int status = runApart(name);
        if (WIFEXITED(status) && WEXITSTATUS(status) == SKIPPED) {
            ++skipped;
            std::printf("tests: skipped %s\n", name.c_str());
        } else if (status != 0) {
            failed.push_back(failureOf(name, status));
        }
    }
    for (const std::string& name : failed) {
        std::printf("tests: FAILED %s\n", name.c_str());
    }
    std::printf("tests: %zu run, %zu skipped, %zu failed\n", names.size(), skipped, failed.size());
    const bool mayBeNone = std::getenv("GTEST_TOTAL_SHARDS") != nullptr;
    return failed.empty() && (mayBeNone || !names.empty()) ? 0 : 1;
}
