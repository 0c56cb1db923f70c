/** evctl support: what is in a bundle, what is not in a redacted one, and that readers take it. */
#include "../evctl/run.h"
#include "../evlog/log_image.h"

#include "bundle/bundle.h"
#include "evctl/support/redact.h"
#include "evctl/support/running_emp.h"
#include "mpu_gbl.h"
#include "sources/source.h"
#include "temp_directory.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <filesystem>
#include <map>
#include <random>
#include <sched.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unordered_set>

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
        return pack({"--nvram", directory_.file("nvram")}, more);
    }
    Said pack(const std::vector<std::string>& where, const std::vector<std::string>& more) {
        std::vector<std::string> arguments = {"support", "-o", bundlePath()};
        arguments.insert(arguments.end(), where.begin(), where.end());
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

namespace {

/** A parameter block in shared memory of its own. */
class SupportOfABlade : public Support {
  protected:
    SupportOfABlade() {
        unsetenv("EVCTL_KEY");
        unsetenv("EVCTL_DIR");
        isAlone_ = unshare(CLONE_NEWIPC) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWIPC) == 0;
        id_ = isAlone_ ? shmget(0x1234, sizeof(MPU_PARAMS_t), IPC_CREAT | 0600) : -1;
        if (id_ < 0) {
            return;
        }
        params_ = static_cast<MPU_PARAMS_t*>(shmat(id_, nullptr, 0));
        params_->version = MPU_PARAMS_VERSION;
        params_->slotId = 2;
        strcpy(reinterpret_cast<char*>(params_->chassisSN), "CHASSIS-2");
        strcpy(params_->nvramDirectory, directory_.file("nvram").c_str());
        strcpy(params_->mmsgDirectory, directory_.path().c_str());
    }
    ~SupportOfABlade() override {
        if (id_ >= 0) {
            shmdt(params_);
            shmctl(id_, IPC_RMID, nullptr);
        }
    }

    bool isAlone_ = false;
    int id_ = -1;
    MPU_PARAMS_t* params_ = nullptr;
};

} // namespace

TEST_F(SupportOfABlade, TheOnlyOneThatRunsIsMeantAndItsIdentityJudgesTheLog) {
    if (!isAlone_) {
        GTEST_SKIP() << "no namespaces";
    }
    test::LogImage sound;
    sound.firstEntry();
    sound.events(1, 3);
    sound.dummy();
    sound.zerosTo();
    write("nvram/kelta_eventlog", sound.bytes);
    write("emp.log", "said by the event manager");
    write("emp.log.1", "said before");
    std::filesystem::create_symlink(directory_.file("nvram/kelta_eventlog"),
                                    directory_.file("msm.log"));
    Said said = pack({}, {});
    EXPECT_EQ(said.status, 1);
    EXPECT_THAT(said.errors, HasSubstr("not in the bundle: status: ")); // nobody answers
    EXPECT_THAT(members_["support/predict.json"], HasSubstr(R"("verdict":"foreign")"));
    EXPECT_THAT(members_["support/parameters.json"], HasSubstr("CHASSIS-2"));
    EXPECT_THAT(members_["support/versions.json"], HasSubstr(R"("eventManager":null)"));
    EXPECT_EQ(members_["support/outputs/emp.log"], "said by the event manager");
    EXPECT_EQ(members_["support/outputs/emp.log.1"], "said before");
    EXPECT_EQ(members_.count("support/outputs/msm.log"), 0U);
    EXPECT_THAT(said.errors, HasSubstr("msm.log: "));
    std::filesystem::remove(bundlePath());
    setenv("EVCTL_KEY", "0x4321", 1);
    EXPECT_THAT(test::run({"support", "-o", bundlePath()}).errors,
                HasSubstr("no parameter block under key 17185"));
    unsetenv("EVCTL_KEY");
}

TEST_F(SupportOfABlade, ALogIsJudgedForTheBladeOfTheKeyThatIsGiven) {
    if (!isAlone_) {
        GTEST_SKIP() << "no namespaces";
    }
    test::LogImage sound;
    sound.firstEntry();
    sound.events(1, 3);
    sound.dummy();
    sound.zerosTo();
    const std::string log = directory_.file("nvram/kelta_eventlog");
    support::writeFile(log, sound.bytes);
    Said said = test::run({"file", "predict", log, "--json"});
    EXPECT_EQ(said.status, 0) << said.errors;
    EXPECT_THAT(said.output, HasSubstr(R"("judgedFor":null,"verdict":"unwrapped")"));
    const std::string foreign =
        R"("judgedFor":{"enclosureId":"CHASSIS-2","slotId":2},"verdict":"foreign")";
    said = test::run({"file", "predict", "--key", "0x1234", log, "--json"});
    EXPECT_EQ(said.status, 1);
    EXPECT_THAT(said.output, HasSubstr(foreign));
    EXPECT_THAT(test::run({"file", "info", "--key", "0x1234", log}).output, HasSubstr("foreign"));
    EXPECT_EQ(test::run({"file", "predict", "--key", "0x4321", log}).status, 2);
    EXPECT_THAT(
        test::run({"file", "predict", "--key", "0x1234", "--enclosure", "X", "--slot", "1", log})
            .errors,
        HasSubstr("excludes"));
    setenv("EVCTL_KEY", "0x1234", 1);
    EXPECT_THAT(test::run({"file", "predict", log, "--json"}).output, HasSubstr(foreign));
    support::writeFile(directory_.file("sent"), sound.bytes);
    said = test::run({"file", "predict", directory_.file("sent"), "--json"});
    EXPECT_EQ(said.status, 0) << "a log from elsewhere is not to be this blade's";
    EXPECT_THAT(said.output, HasSubstr(R"("judgedFor":null,"verdict":"unwrapped")"));
    said = test::run({"file", "predict", log, "--enclosure", "CHASSIS-1", "--slot", "2"});
    EXPECT_EQ(said.status, 0) << "what is typed goes before";
    setenv("EVCTL_KEY", "0x4321", 1);
    said = test::run({"file", "predict", log});
    EXPECT_EQ(said.status, 0);
    EXPECT_THAT(said.errors, HasSubstr("judged for no blade, of EVCTL_KEY there is none: no "));
    setenv("EVCTL_KEY", "nonsense", 1);
    EXPECT_EQ(test::run({"file", "predict", log}).status, 2);
    unsetenv("EVCTL_KEY");
}

TEST(RunningEmp, ItsVersionAndTheOutputsOfItsBladeAreFound) {
    support::TempDirectory proc;
    proc.makeDirectory("17");
    proc.makeDirectory("16");
    proc.makeDirectory("self");
    auto put = [&](const std::string& name, const std::string& text) {
        support::writeFile(proc.file(name), text);
    };
    auto putWords = [&](const std::string& name, const std::vector<std::string>& words) {
        std::string line;
        for (const std::string& word : words) {
            line += word + '\0';
        }
        put(name, line);
    };
    putWords("16/cmdline", {"/x/blade", "--emp-log", "/l/emp-1.log", "--msm-log=m.log"});
    putWords("17/cmdline", {"/x/emp", "0x1234"});
    put("17/stat", "17 (a) b) S 16 17");
    auto field = [](std::string text, size_t size) {
        text.resize(size);
        return text;
    };
    put("17/exe", "Version x" + field("Version 9.8.7.6", 32) + field("build-1", 64) +
                      field("Apr  7 2006 09:15:50", 21) + "rest");
    std::optional<evctl::RunningEmp> emp = evctl::findRunningEmp(0x1234, proc.path());
    ASSERT_TRUE(emp);
    EXPECT_EQ(emp->version, "9.8.7.6 | build-1 | Apr  7 2006 09:15:50");
    EXPECT_THAT(emp->outputs, testing::ElementsAre("/l/emp-1.log", proc.file("16/cwd/m.log")));
    EXPECT_FALSE(evctl::findRunningEmp(0x1235, proc.path()));
    EXPECT_EQ(evctl::versionIn("Version 1"), "");
    EXPECT_EQ(evctl::versionIn(std::string(200, 'x') + "Version " + std::string(200, 'y')), "");
}

TEST_F(Support, OfNoDirectoryThereIsNoBundle) {
    Said said = test::run({"support", "--nvram", directory_.file("nowhere"), "-o", bundlePath()});
    EXPECT_EQ(said.status, 2);
    EXPECT_THAT(said.errors, HasSubstr("nowhere: No such file or directory"));
    EXPECT_FALSE(std::filesystem::exists(bundlePath()));
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

TEST_F(Support, JsonNamesWhatIsInItAndWhatIsMissing) {
    Said said = pack({"--json", "--tail", "/nowhere/at all"});
    EXPECT_EQ(said.status, 1);
    nlohmann::json json = nlohmann::json::parse(said.output);
    EXPECT_EQ(json["bundle"], bundlePath());
    EXPECT_EQ(json["members"].size(), members_.size());
    const std::string page = test::pageOfJson({"support"});
    for (const char* name : {"bundle", "members", "name", "bytes", "missing"}) {
        EXPECT_THAT(page, testing::ContainsRegex("\\b" + std::string(name) + "\\b"));
    }
    EXPECT_EQ(json.size(), 3U);
    for (const auto& member : json["members"]) {
        EXPECT_EQ(member["bytes"], members_[member["name"]].size()) << member;
    }
    EXPECT_EQ(json["missing"],
              nlohmann::json::array({"outputs: /nowhere/at all: No such file or directory"}));
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
    EXPECT_THAT(said.errors, HasSubstr("outputs: emp.log is left out"));
    for (const auto& [name, content] : members_) {
        EXPECT_THAT(content, Not(HasSubstr("secret"))) << name;
        EXPECT_THAT(content, Not(HasSubstr("CHASSIS"))) << name;
        EXPECT_THAT(content, Not(HasSubstr("BLADE-A"))) << name;
    }
    EXPECT_EQ(members_.count("support/outputs/emp.log"), 0U);
    EXPECT_EQ(members_["support/missing.txt"], "outputs\n");
}

TEST_F(Support, RedactedHoldsNoSixBytesOfNamesOrDataWhereverTheyStood) {
    std::minstd_rand random(20061122);
    std::unordered_set<std::string> pieces;
    auto secret = [&](size_t length) {
        std::string text;
        while (text.size() < length) {
            text += static_cast<char>('!' + random() % 90);
        }
        for (size_t at = 0; at + 6 <= length; at++) {
            pieces.insert(text.substr(at, 6));
        }
        return text;
    };
    test::LogImage log;
    log.firstEntry();
    for (uint32_t id = 1; id <= 200; id++) {
        // Behind the end of a name, too; the whole field; and where a bug-check has its texts.
        std::string name = id % 3 == 0 ? std::string("\0", 1) + secret(63) : secret(64);
        bool bugcheck = id % 5 == 0;
        log.raw(test::record({.enclosure = name,
                              .blade = secret(7 + id % 50),
                              .id = id,
                              .source = static_cast<uint8_t>(bugcheck ? 27 : 18),
                              .eventId = static_cast<uint16_t>(bugcheck ? 11 : id)},
                             secret(bugcheck ? 196 : random() % 600)));
        log.raw(id % 7 == 0 ? secret(50) : "");
    }
    log.dummy();
    log.zerosTo(test::RING - 5000);
    log.raw(secret(4000));
    log.zerosTo();
    for (const char* name : {"kelta_eventlog", "kelta_eventlog.debug"}) {
        write("nvram/" + std::string(name), log.bytes);
    }
    write("nvram/kelta_eventlog.fatal-" + secret(12), log.bytes);
    write("nvram/aelfiles/kelta_alteventlog1." + secret(12), test::record({}, secret(300)));
    write("nvram/aelfiles/" + secret(12), secret(300));
    std::string output = directory_.file(secret(12));
    pack({"--redact", "--tail", output, "--tail", output});

    std::string packed = support::readFile(bundlePath());
    std::optional<std::string> problem;
    std::vector<U8_t> plain = sources::decompress(
        {reinterpret_cast<const U8_t*>(packed.data()), packed.size()}, size_t{64} << 20U, &problem);
    std::string all(plain.begin(), plain.end());
    ASSERT_GT(all.size(), 4 * test::RING);
    size_t found = 0;
    for (size_t at = 0; at + 6 <= all.size(); at++) {
        if (all[at] != '\0' && pieces.contains(all.substr(at, 6))) {
            ADD_FAILURE() << "'" << all.substr(at, 6) << "' at " << at;
            ASSERT_LT(++found, 10U);
        }
    }
}

TEST_F(Support, RedactedKeepsOnlyKnownMessagesOfBugChecksAndNothingBehindTheirEnds) {
    auto padded = [](std::string text, const std::string& rest) {
        text += std::string(1, '\0') + rest;
        text.resize(64, '\0');
        return text;
    };
    auto bugcheck = [&](const std::string& function, const std::string& message) {
        return padded("secret/path", "") + padded(function, "secret") + std::string("\0\0\1\7", 4) +
               padded(message, "secret");
    };
    test::LogImage log;
    log.firstEntry();
    auto add = [&](uint32_t id, const std::string& body) {
        log.raw(test::record({.id = id, .source = 27, .eventId = 11}, body));
    };
    add(1, bugcheck("main", "Linux select function fails"));
    add(2, bugcheck("secret", "Linux select function fails"));
    add(3, bugcheck("main", "secret"));
    log.bytes[200 + 3] = 's'; // the reserved byte of record 1, which no checksum covers
    log.dummy();
    log.zerosTo();
    write("nvram/kelta_eventlog", log.bytes);
    pack({"--redact"});
    std::string shown = members_["support/kelta_eventlog"];
    EXPECT_THAT(shown, Not(HasSubstr("secret")));
    EXPECT_EQ(shown[203], '\0');
    test::Walked walked = test::walk(shown);
    ASSERT_EQ(walked.records.size(), 4U);
    auto bodyOf = [&](size_t place) {
        std::span<const U8_t> body = walked.records[place].body;
        return std::string(body.begin(), body.end());
    };
    EXPECT_EQ(bodyOf(1), std::string(64, '\0') + padded("main", "") + std::string("\0\0\1\7", 4) +
                             padded("Linux select function fails", ""));
    EXPECT_EQ(bodyOf(2), std::string(196, '\0'));
    EXPECT_EQ(bodyOf(3), std::string(196, '\0'));
    EXPECT_THAT(members_["support/crashes.txt"], HasSubstr("Linux select function fails"));
}

TEST_F(Support, BugCheckThatWaitsForTheNextStartIsReportedOfDirectoryLogAndBundle) {
    std::string body = test::text64("empmain") + test::text64("main") + test::bigEndian(67, 4) +
                       test::text64("Linux select function fails");
    write("nvram/aelfiles/kelta_alteventlog1.b",
          test::record({.instance = 0, .time = 1'164'117'800, .source = 27, .eventId = 11}, body));
    pack();
    const std::string head = "bug-check 1 of 1, newest first\n"
                             "time          2006-11-21T14:03:20Z\n"
                             "message       Linux select function fails\n";
    for (const std::string& place :
         {directory_.file("nvram"), directory_.file("nvram/kelta_eventlog"), bundlePath(),
          directory_.file("nvram/aelfiles"),
          directory_.file("nvram/aelfiles/kelta_alteventlog1.b")}) {
        Said said = test::run({"file", "crash", place});
        EXPECT_EQ(said.status, 1) << place;
        EXPECT_EQ(said.errors, "");
        EXPECT_EQ(said.output.substr(0, head.size()), head) << place;
        EXPECT_THAT(said.output, HasSubstr("1 of 24, which wait for"));
    }
    EXPECT_THAT(members_["support/crashes.txt"], HasSubstr("Linux select function fails"));
    // What made the bug-check may have been the log.
    write("nvram/kelta_eventlog", "this is no log");
    Said said = test::run({"file", "crash", directory_.file("nvram")});
    EXPECT_THAT(said.errors, HasSubstr("no event log"));
    EXPECT_EQ(said.output.substr(0, head.size()), head);
    std::filesystem::remove(directory_.file("nvram/kelta_eventlog"));
    said = test::run({"file", "crash", directory_.file("nvram")});
    EXPECT_EQ(said.errors, "");
    EXPECT_EQ(said.output.substr(0, head.size()), head);
    std::filesystem::remove(bundlePath());
    pack({"--redact"});
    EXPECT_THAT(members_["support/crashes.txt"], HasSubstr("Linux select function fails"));
}

TEST_F(Support, WithoutLogAndWithoutAlternateEventsThereIsNoCrashToLookFor) {
    directory_.makeDirectory("empty");
    Said said = test::run({"file", "crash", directory_.file("empty")});
    EXPECT_EQ(said.status, 2);
    EXPECT_THAT(said.errors, HasSubstr("a directory without an event log"));
    write("empty/kelta_eventlog", "this is no log");
    said = test::run({"file", "crash", directory_.file("empty")});
    EXPECT_EQ(said.status, 2);
    EXPECT_THAT(said.errors, HasSubstr("no event log"));
}

TEST(Redaction, ObjectsLoseTextsAndSerialNumbers) {
    evctl::Json json = {{"serialNo", 17}, {"slotId", 3}, {"empty", ""}, {"mac", {"00:01", 5}}};
    EXPECT_EQ(evctl::Redaction::object(json).dump(),
              R"({"serialNo":"redacted","slotId":3,"empty":"","mac":["redacted",5]})");
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
    // Five readable events, the same in three logs, and an alternate one.
    EXPECT_THAT(said.output, HasSubstr(R"({"events":6,)"));
    said = test::run({"file", "list", bundlePath()});
    EXPECT_EQ(said.status, 1);
    EXPECT_EQ(std::ranges::count(said.output, '\n'), 6); // the logs' events are the same
}

TEST_F(Support, AlternateEventsOfABundleAreListedAsThoseOfTheDirectory) {
    write("nvram/aelfiles/kelta_alteventlog1.later", test::record({.eventId = 301}, SECRET));
    for (const auto& [name, seconds] :
         std::map<std::string, time_t>{{"later", 1'000}, {"abcdef", 2'000}}) {
        const timespec times[] = {{seconds, 0}, {seconds, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD,
                            directory_.file("nvram/aelfiles/kelta_alteventlog1." + name).c_str(),
                            times, 0),
                  0);
    }
    pack();
    for (const char* form : {"short", "full", "json", "csv"}) {
        Said plain = test::run({"ael", "list", directory_.file("nvram/aelfiles"), "-o", form});
        Said bundled = test::run({"ael", "list", bundlePath(), "-o", form});
        EXPECT_EQ(bundled.output, plain.output);
        EXPECT_EQ(bundled.errors, "");
        EXPECT_EQ(bundled.status, plain.status);
        EXPECT_THAT(plain.output, HasSubstr("301"));
    }
    EXPECT_EQ(test::run({"ael", "show", "--dir", bundlePath(), "kelta_alteventlog1.later"}).status,
              0);
    // A cursor of the directory holds for the bundle.
    std::string cursor = directory_.file("cursor");
    test::run({"ael", "list", directory_.file("nvram/aelfiles"), "--cursor-file", cursor});
    EXPECT_EQ(test::run({"ael", "list", bundlePath(), "--cursor-file", cursor}).output, "");
}

TEST_F(Support, AMemberThatDoesNotAgreeWithItsChecksumIsSaidAndStillRead) {
    test::LogImage sound;
    sound.firstEntry();
    sound.events(1, 3);
    sound.dummy();
    sound.zerosTo();
    write("nvram/kelta_eventlog", sound.bytes);
    pack();
    std::vector<bundle::Member> members;
    for (const auto& [name, bytes] : members_) {
        members.push_back({name, {bytes.begin(), bytes.end()}});
    }
    auto rewrite = [&] {
        std::vector<U8_t> bytes = bundle::pack(members, 1);
        support::writeFile(bundlePath(), std::string(bytes.begin(), bytes.end()));
    };
    auto member = [&](const std::string& name) {
        return std::ranges::find(members, "support/" + name, &bundle::Member::name);
    };
    auto errorsOf = [&](std::vector<std::string> command) {
        command.push_back(bundlePath());
        Said said = test::run(command);
        EXPECT_EQ(said.status, 1) << command[1];
        EXPECT_NE(said.output, "");
        return said.errors;
    };
    rewrite();
    EXPECT_EQ(test::run({"file", "info", bundlePath()}).errors, "");
    EXPECT_EQ(test::run({"file", "info", bundlePath()}).status, 0);
    member("kelta_eventlog")->bytes.back() ^= 1; // behind the events
    member("missing.txt")->name += "x";
    rewrite();
    const std::vector<std::string> said = {"kelta_eventlog: does not agree with its checksum\n",
                                           "missing.txt: has a checksum, and is not there\n"};
    for (const std::vector<std::string>& command :
         std::vector<std::vector<std::string>>{{"file", "list"},
                                               {"file", "info"},
                                               {"file", "map"},
                                               {"file", "predict"},
                                               {"file", "show", "--seq", "2"},
                                               {"file", "salvage", "--dry-run"},
                                               {"stats"},
                                               {"ael", "list"}}) {
        std::string errors = errorsOf(command);
        EXPECT_THAT(errors, HasSubstr(said[0])) << command[1];
        EXPECT_THAT(errors, HasSubstr(said[1])) << command[1];
    }
    members.erase(member("SHA256SUMS"));
    rewrite();
    EXPECT_EQ(test::run({"file", "info", bundlePath()}).errors, "");
    members.push_back({"support/SHA256SUMS", {'x', '\n'}});
    rewrite();
    EXPECT_THAT(errorsOf({"file", "info"}), HasSubstr("SHA256SUMS: a line that is no checksum"));
}

TEST_F(Support, ReadersOfAFileTakeTheLogInTheBundle) {
    pack();
    std::string log = directory_.file("nvram/kelta_eventlog");
    for (std::vector<std::string> command : {std::vector<std::string>{"info"},
                                             {"verify"},
                                             {"predict"},
                                             {"map"},
                                             {"crash"},
                                             {"show", "--seq", "4"}}) {
        command.insert(command.begin(), "file");
        command.push_back(log);
        Said plain = test::run(command);
        command.back() = bundlePath();
        Said bundled = test::run(command);
        EXPECT_EQ(bundled.status, plain.status) << command[1];
        EXPECT_EQ(bundled.errors, "");
        if (command[1] != "info") { // which names the file
            EXPECT_EQ(bundled.output, plain.output) << command[1];
        }
    }
}

TEST_F(Support, SalvageTakesEveryLogAndAlternateEventOfTheBundle) {
    std::string debug = secretLog();
    debug[1000] ^= 1; // other damage than in the log
    debug[640] ^= 0x5A;
    write("nvram/kelta_eventlog.debug", debug);
    write("nvram/kelta_eventlog.fatal-20261122T080000Z", "no log");
    pack();
    Said said = test::run({"file", "salvage", bundlePath(), "--dry-run"});
    EXPECT_EQ(said.status, 1);
    EXPECT_THAT(said.output, HasSubstr("7 events saved, ids 0 to 6"));
    EXPECT_THAT(said.errors, HasSubstr("kelta_eventlog.fatal-20261122T080000Z: no event log"));
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
