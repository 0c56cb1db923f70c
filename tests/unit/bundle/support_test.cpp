/** evctl support: what is in a bundle, what is not in a redacted one, and that readers take it. */
#include "../evctl/run.h"
#include "../evlog/log_image.h"

#include "bundle/bundle.h"
#include "temp_directory.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <map>

using test::Said;
using testing::HasSubstr;
using testing::Not;

namespace {

const std::string SECRET = "secret of a customer";

/** Events with names and data, a damaged one among them. */
std::string secretLog() {
    test::LogImage log;
    log.firstEntry();
    for (uint32_t id = 1; id <= 5; id++) {
        log.raw(test::record({.id = id}, SECRET + std::string(20, '\0')));
    }
    log.dummy();
    log.zerosTo();
    log.damage(640);
    return log.bytes;
}

class Support : public testing::Test {
  protected:
    Support() {
        directory_.makeDirectory("nvram");
        directory_.makeDirectory("nvram/aelfiles");
        write("nvram/kelta_eventlog", secretLog());
        write("nvram/kelta_eventlog.debug", secretLog());
        write("nvram/kelta_eventlog.fatal-20261122T080000Z", secretLog());
        write("nvram/aelfiles/kelta_alteventlog1.abcdef",
              test::record({.time = 1'164'117'700}, SECRET));
    }
    void write(const std::string& name, const std::string& bytes) {
        support::writeFile(directory_.file(name), bytes);
    }
    Said pack(const std::vector<std::string>& more = {}) {
        std::vector<std::string> arguments = {"support", "--nvram", directory_.file("nvram"), "-o",
                                              bundlePath()};
        arguments.insert(arguments.end(), more.begin(), more.end());
        Said said = test::run(arguments);
        std::string packed = support::readFile(bundlePath());
        std::vector<std::string> problems;
        members_.clear();
        for (const bundle::Member& member : bundle::unpack(
                 {reinterpret_cast<const U8_t*>(packed.data()), packed.size()}, &problems)) {
            members_[member.name] = std::string(member.bytes.begin(), member.bytes.end());
        }
        EXPECT_TRUE(problems.empty());
        return said;
    }
    std::string bundlePath() const { return directory_.file("help.tar.gz"); }

    support::TempDirectory directory_;
    std::map<std::string, std::string> members_;
};

} // namespace

TEST_F(Support, HoldsWhatIsThere) {
    Said said = pack();
    EXPECT_EQ(said.status, 0) << said.errors;
    EXPECT_EQ(members_["support/kelta_eventlog"], secretLog());
    EXPECT_EQ(members_["support/kelta_eventlog.debug"], secretLog());
    EXPECT_EQ(members_["support/kelta_eventlog.fatal-20261122T080000Z"], secretLog());
    EXPECT_EQ(members_.count("support/aelfiles/kelta_alteventlog1.abcdef"), 1U);
    EXPECT_THAT(members_["support/predict.json"], HasSubstr(R"("fatal":true)"));
    EXPECT_THAT(members_["support/verify.json"], HasSubstr("checksum does not match"));
    EXPECT_THAT(members_["support/versions.json"], HasSubstr("\"evctl\""));
    EXPECT_EQ(members_["support/missing.txt"], "");
    EXPECT_THAT(said.output, HasSubstr("support/kelta_eventlog  1600000\n"));
}

TEST_F(Support, ChecksumsAreThoseOfTheMembers) {
    pack();
    std::string expected;
    for (const auto& [name, content] : members_) {
        if (name != "support/SHA256SUMS") {
            std::string line =
                bundle::sha256({reinterpret_cast<const U8_t*>(content.data()), content.size()}) +
                "  " + name.substr(8) + "\n";
            EXPECT_THAT(members_["support/SHA256SUMS"], HasSubstr(line));
        }
    }
}

TEST_F(Support, NeverReplacesAFile) {
    support::writeFile(bundlePath(), "precious");
    Said said = test::run({"support", "--nvram", directory_.file("nvram"), "-o", bundlePath()});
    EXPECT_EQ(said.status, 2);
    EXPECT_EQ(support::readFile(bundlePath()), "precious");
}

TEST_F(Support, TailsAreTheEndsOfOutputs) {
    write("emp.log", std::string(300'000, 'x') + "last line\n");
    directory_.makeDirectory("other");
    write("other/emp.log", "another\n");
    pack({"--tail", directory_.file("emp.log"), "--tail", directory_.file("other/emp.log")});
    EXPECT_EQ(members_["support/outputs/emp.log"].size(), 262'144U);
    EXPECT_THAT(members_["support/outputs/emp.log"], testing::EndsWith("xlast line\n"));
    EXPECT_EQ(members_["support/outputs/emp.log-2"], "another\n");
}

TEST_F(Support, WhatIsMissingIsSaid) {
    std::filesystem::remove(directory_.file("nvram/kelta_eventlog"));
    Said said = pack({"--tail", directory_.file("nowhere")});
    EXPECT_EQ(said.status, 1);
    EXPECT_THAT(said.errors, HasSubstr("not in the bundle: kelta_eventlog: No such file"));
    EXPECT_THAT(members_["support/missing.txt"], HasSubstr("nowhere: No such file"));
}

TEST_F(Support, RedactedHoldsNoNamesAndNoData) {
    write("emp.log", SECRET);
    Said said = pack({"--redact", "--tail", directory_.file("emp.log")});
    EXPECT_EQ(said.status, 1) << "the output is left out";
    for (const auto& [name, content] : members_) {
        EXPECT_THAT(content, Not(HasSubstr("secret"))) << name;
        EXPECT_THAT(content, Not(HasSubstr("CHASSIS"))) << name;
        EXPECT_THAT(content, Not(HasSubstr("BLADE-A"))) << name;
    }
    EXPECT_EQ(members_.count("support/outputs/emp.log"), 0U);
}

TEST_F(Support, RedactedKeepsIdsTimesAndPlaces) {
    pack({"--redact"});
    test::Walked before = test::walk(secretLog());
    test::Walked after = test::walk(members_["support/kelta_eventlog"]);
    ASSERT_EQ(after.records.size(), before.records.size());
    for (size_t place = 0; place < before.records.size(); place++) {
        const EvlogRecord_t& one = before.records[place];
        const EvlogRecord_t& other = after.records[place];
        EXPECT_EQ(one.offset, other.offset);
        EXPECT_EQ(U32_t{one.header->evSequenceId}, U32_t{other.header->evSequenceId});
        EXPECT_EQ(U32_t{one.header->evTime}, U32_t{other.header->evTime});
        EXPECT_STREQ(reinterpret_cast<const char*>(other.header->evEnclosureId), "ENCLOSURE-1");
    }
}

TEST_F(Support, ReadersTakeTheBundle) {
    pack();
    Said said = test::run({"stats", bundlePath(), "-o", "json"});
    EXPECT_EQ(said.status, 1) << "they are damaged";
    // Three logs of five readable events, and an alternate one.
    EXPECT_THAT(said.output, HasSubstr(R"({"events":16,)"));
    said = test::run({"file", "list", bundlePath()});
    EXPECT_EQ(said.status, 1);
    EXPECT_EQ(std::ranges::count(said.output, '\n'), 16);
}

TEST_F(Support, HostileBundlesAreRefusedOrReadInPart) {
    auto packed = [](const std::vector<bundle::Member>& members) {
        std::vector<U8_t> bytes = bundle::pack(members, 1);
        return std::string(bytes.begin(), bytes.end());
    };
    auto bytesOf = [](const std::string& text) {
        return std::vector<U8_t>(text.begin(), text.end());
    };
    write("none.tar.gz", packed({{"support/readme", bytesOf("x")}}));
    Said said = test::run({"stats", directory_.file("none.tar.gz")});
    EXPECT_EQ(said.status, 2);
    EXPECT_THAT(said.errors, HasSubstr("a bundle without a log"));
    write("part.tar.gz", packed({{"../\x1bx/kelta_eventlog", bytesOf("no log")},
                                 {"/abs/kelta_eventlog", bytesOf(secretLog())}}));
    said = test::run({"stats", directory_.file("part.tar.gz"), "-o", "json"});
    EXPECT_EQ(said.status, 1);
    EXPECT_THAT(said.output, HasSubstr(R"({"events":5,)"));
    EXPECT_THAT(said.errors, HasSubstr("../\\x1Bx/kelta_eventlog"));
    EXPECT_THAT(said.errors, Not(HasSubstr("\x1b")));
}
