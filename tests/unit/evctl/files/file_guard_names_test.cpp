/** evctl file guard: the names that it gives, what has them already, and a log that is replaced
 * while it works. */
#include "../../evlog/log_image.h"
#include "../run.h"

#include "temp_directory.h"

#include <gmock/gmock.h>

#include <ctime>
#include <filesystem>
#include <functional>
#include <iostream>
#include <streambuf>
#include <unistd.h>

using test::Said;
using testing::HasSubstr;

namespace {

class GuardNames : public testing::Test {
  protected:
    static std::string fatal() {
        test::LogImage log;
        log.firstEntry();
        log.events(1, 10);
        log.dummy();
        log.zerosTo();
        log.damage(1100);
        return log.bytes;
    }
    Said guard(const std::vector<std::string>& more = {}) const {
        std::vector<std::string> arguments = {"file", "guard", path_};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return test::run(arguments);
    }
    /** The names of a log that is set aside now, or while this test runs. */
    std::vector<std::string> namesOfNow() const {
        std::vector<std::string> names;
        for (time_t later = 0; later < 30; later++) {
            const time_t now = time(nullptr) + later;
            struct tm utc {};
            gmtime_r(&now, &utc);
            char text[32];
            strftime(text, sizeof(text), "%Y%m%dT%H%M%SZ", &utc);
            names.push_back(path_ + ".fatal-" + text);
        }
        return names;
    }

    support::TempDirectory directory_;
    std::string path_ = directory_.file("kelta_eventlog");
};

/** Standard output that does something before the first byte. */
class Meanwhile : public std::streambuf {
  public:
    explicit Meanwhile(std::function<void()> act)
        : act_(std::move(act)), before_(std::cout.rdbuf(this)) {}
    ~Meanwhile() override { std::cout.rdbuf(before_); }
    Meanwhile(const Meanwhile&) = delete;
    Meanwhile& operator=(const Meanwhile&) = delete;

  private:
    std::streamsize xsputn(const char*, std::streamsize count) override {
        actOnce();
        return count;
    }
    int_type overflow(int_type byte) override {
        actOnce();
        return traits_type::not_eof(byte);
    }
    void actOnce() {
        std::exchange(act_, [] {})();
    }

    std::function<void()> act_;
    std::streambuf* before_;
};

} // namespace

TEST_F(GuardNames, NamesThatLinksAndDirectoriesHaveAreLeftToThem) {
    support::writeFile(path_, fatal());
    for (const std::string& name : namesOfNow()) {
        ASSERT_EQ(symlink("nowhere", name.c_str()), 0);
        std::filesystem::create_directory(name + "-1");
    }
    Said said = guard();
    EXPECT_EQ(said.status, 1) << said.errors;
    EXPECT_THAT(said.output, HasSubstr("Z-2; 10 events saved"));
    EXPECT_EQ(test::run({"file", "predict", path_}).status, 0);
}

TEST_F(GuardNames, WhenEachNameIsTakenNothingIsChanged) {
    support::writeFile(path_, fatal());
    for (const std::string& name : namesOfNow()) {
        std::filesystem::create_directory(name);
        for (int number = 1; number < 10; number++) {
            std::filesystem::create_directory(name + "-" + std::to_string(number));
        }
    }
    Said said = guard();
    EXPECT_EQ(said.status, 2);
    EXPECT_THAT(said.errors, HasSubstr("Z-9: File exists"));
    EXPECT_TRUE(support::readFile(path_) == fatal());
}

TEST_F(GuardNames, WhatIsNoLogThatWasSetAsideIsNeitherCountedNorRemoved) {
    support::writeFile(path_, fatal());
    support::writeFile(directory_.file("precious"), "precious");
    const std::string later = path_ + ".fatal-21300101T000000Z";
    ASSERT_EQ(symlink("precious", later.c_str()), 0);
    support::writeFile(directory_.file("other.fatal-21300102T000000Z"), "of another log");
    Said said = guard({"--keep", "1"});
    EXPECT_THAT(said.output, HasSubstr("Z; 10 events saved")) << "as if it were the first";
    EXPECT_THAT(said.output, testing::Not(HasSubstr("removed")));
    EXPECT_EQ(support::readFile(later), "precious");
    EXPECT_TRUE(std::filesystem::exists(directory_.file("other.fatal-21300102T000000Z")));
}

TEST_F(GuardNames, TheLogJustSetAsideStaysWhateverItsNameIs) {
    support::writeFile(path_, fatal());
    const std::string oldest = path_ + ".fatal-20061121T140000Z";
    std::filesystem::create_hard_link(path_, oldest); // by one that ended half-way, long ago
    for (const char* year : {"2130", "2131"}) {
        support::writeFile(path_ + ".fatal-" + year + "0101T000000Z", year);
    }
    Said said = guard({"--keep", "1", "--json"});
    EXPECT_EQ(said.status, 1);
    EXPECT_THAT(said.output, HasSubstr("\"aside\":\"" + oldest + "\""));
    EXPECT_TRUE(support::readFile(oldest) == fatal());
    EXPECT_FALSE(std::filesystem::exists(path_ + ".fatal-21300101T000000Z"));
}

TEST_F(GuardNames, NumberWithMoreBehindItIsNone) {
    support::writeFile(path_, fatal());
    support::writeFile(path_ + ".fatal-21300101T000000Z-7x", "another's");
    Said said = guard();
    EXPECT_THAT(said.output, HasSubstr("Z-1; 10 events saved"));
}

TEST_F(GuardNames, DirectoryMayBeNamedLikeALogThatWasSetAside) {
    path_ = directory_.makeDirectory("old.fatal-20061121T140000Z") + "/kelta_eventlog";
    support::writeFile(path_ + ".fatal-21300101T000000Z-9", "ninth");
    support::writeFile(path_ + ".fatal-21300101T000000Z-10", "tenth");
    support::writeFile(path_, fatal());
    EXPECT_THAT(guard({"--keep", "2"}).output, HasSubstr("0000Z-9: removed\n"));
    EXPECT_EQ(support::readFile(path_ + ".fatal-21300101T000000Z-10"), "tenth");
}

TEST_F(GuardNames, LogReplacedMeanwhileIsLeftAsItIs) {
    support::writeFile(path_, fatal());
    const std::string moved = directory_.file("moved");
    for (const bool isLink : {false, true}) {
        const Meanwhile replaced([&] {
            std::filesystem::rename(path_, moved);
            if (isLink) { // to the very file that was judged
                std::filesystem::create_symlink("moved", path_);
            } else {
                support::writeFile(path_, fatal());
            }
        });
        Said said = guard();
        EXPECT_EQ(said.status, 2);
        EXPECT_THAT(said.errors, HasSubstr("replaced meanwhile; nothing was changed"));
        EXPECT_EQ(std::filesystem::is_symlink(path_), isLink);
        EXPECT_TRUE(support::readFile(path_) == fatal());
        EXPECT_TRUE(support::readFile(moved) == fatal());
    }
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory_.path()), {}), 2);
}

TEST_F(GuardNames, LogThatCannotBeLookedAtIsNotTakenForAMissingOne) {
    support::writeFile(path_, "no directory");
    path_ += "/kelta_eventlog";
    Said said = guard();
    EXPECT_EQ(said.status, 2);
    EXPECT_THAT(said.errors, HasSubstr("kelta_eventlog: Not a directory"));
}
