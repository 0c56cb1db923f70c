/** evctl support: what is in a bundle. */
#include "support_bundle.h"

#include "evctl/support/running_emp.h"
#include "mpu_gbl.h"

#include <nlohmann/json.hpp>

#include <array>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <sched.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>

using test::Said;
using test::SECRET;
using test::secretLog;
using test::Support;
using testing::HasSubstr;

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

std::string soundLog() {
    test::LogImage log;
    log.firstEntry();
    log.events(1, 3);
    log.dummy();
    log.zerosTo();
    return log.bytes;
}

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
    write("nvram/kelta_eventlog", soundLog());
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
    const std::string foreign =
        R"("judgedFor":{"enclosureId":"CHASSIS-2","slotId":2},"verdict":"foreign")";
    EXPECT_THAT(test::run({"file", "predict", "--json"}).output, HasSubstr(foreign));
    EXPECT_THAT(test::run({"file", "info"}).output, HasSubstr("foreign"));
    EXPECT_THAT(test::run({"file", "predict", bundlePath(), "--json"}).output, HasSubstr(foreign));
    EXPECT_THAT(test::run({"file", "info", bundlePath()}).output, HasSubstr("foreign"));
    std::filesystem::remove(bundlePath());
    pack({}, {"--redact"});
    EXPECT_THAT(members_["support/predict.json"],
                HasSubstr(R"("judgedFor":{"enclosureId":"redacted","slotId":2})"));
    EXPECT_THAT(test::run({"file", "predict", bundlePath(), "--json"}).output,
                HasSubstr(R"("judgedFor":null,"verdict":"unwrapped")"));
    std::filesystem::remove(bundlePath());
    setenv("EVCTL_KEY", "0x4321", 1);
    EXPECT_THAT(test::run({"support", "-o", bundlePath()}).errors,
                HasSubstr("no parameter block under key 0x4321"));
    unsetenv("EVCTL_KEY");
}

TEST_F(SupportOfABlade, ALogIsJudgedForTheBladeOfTheKeyThatIsGiven) {
    if (!isAlone_) {
        GTEST_SKIP() << "no namespaces";
    }
    const std::string log = directory_.file("nvram/kelta_eventlog");
    support::writeFile(log, soundLog());
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
    support::writeFile(directory_.file("sent"), soundLog());
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

TEST_F(Support, ChecksumsOfNamesThatNeedEscapingAreThoseThatSha256sumReads) {
    for (const char* name : {"nvram/aelfiles/kelta_alteventlog1.a\nb", "emp\\.log",
                             "nvram/kelta_eventlog.fatal-x\r"}) {
        write(name, test::record({}, SECRET));
    }
    pack({"--tail", directory_.file("emp\\.log")});
    EXPECT_THAT(members_["support/SHA256SUMS"], HasSubstr("  aelfiles/kelta_alteventlog1.a\\nb\n"));
    std::array<char, 256> said{};
    const std::string command =
        "cd '" + directory_.path() +
        "' && tar xzf help.tar.gz && cd support && sha256sum --check --strict "
        "--quiet SHA256SUMS 2>&1 && sed 1s/./x/ -i aelfiles/*a?b && "
        "sha256sum --check --quiet SHA256SUMS 2>/dev/null";
    FILE* pipe = popen(command.c_str(), "r");
    const size_t size = fread(said.data(), 1, said.size(), pipe);
    EXPECT_EQ(std::string(said.data(), size), "\\aelfiles/kelta_alteventlog1.a\\nb: FAILED\n");
    EXPECT_NE(pclose(pipe), 0);
    EXPECT_EQ(test::run({"file", "info", bundlePath()}).errors, "");
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

TEST_F(Support, OfALoopOfRestartsTheFirstAndTheNewestAlternateEventsAreTaken) {
    std::filesystem::remove(directory_.file("nvram/aelfiles/kelta_alteventlog1.abcdef"));
    auto nameOf = [](int number) {
        return "aelfiles/kelta_alteventlog1." + std::to_string(number * 7919 % 1024);
    };
    for (int number = 0; number < 1024; number++) {
        std::string name = "nvram/" + nameOf(number);
        write(name, test::record({.eventId = static_cast<uint16_t>(number)}, ""));
        const timespec times[] = {{number, 0}, {number, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, directory_.file(name).c_str(), times, 0), 0);
    }
    Said said = pack();
    EXPECT_EQ(said.status, 1);
    for (int number = 0; number < 1024; number++) {
        EXPECT_EQ(members_.count("support/" + nameOf(number)), number < 500 || number >= 524)
            << number;
    }
    EXPECT_THAT(said.errors, HasSubstr("not in the bundle: 24 of 1024 alternate event files: the "
                                       "first and the last 500 are looked at"));
    std::filesystem::remove(bundlePath());
    pack({"--redact"});
    EXPECT_EQ(members_["support/missing.txt"], "24 of 1024 alternate event files\n");
}
