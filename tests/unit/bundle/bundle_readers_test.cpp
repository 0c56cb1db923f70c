/** Readers of logs and alternate events take a bundle. */
#include "support_bundle.h"

#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>

using test::Said;
using test::SECRET;
using test::secretLog;
using test::Support;
using testing::HasSubstr;
using testing::Not;

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

TEST_F(Support, NothingElseOfABundleIsTakenForItsLog) {
    const std::string reason = bundlePath() + ": a bundle without a log\n";
    auto expectRefused = [&](std::vector<std::string> command) {
        command.push_back(bundlePath());
        Said said = test::run(command);
        EXPECT_EQ(said.status, 2) << command[1];
        EXPECT_EQ(said.output, "") << command[1];
        EXPECT_THAT(said.errors, HasSubstr(reason)) << command[1];
    };
    std::filesystem::remove(directory_.file("nvram/kelta_eventlog"));
    std::filesystem::remove(directory_.file("nvram/kelta_eventlog.fatal-20261122T080000Z"));
    EXPECT_EQ(pack().status, 1);
    expectRefused({"file", "predict"}); // not the damaged copy
    std::filesystem::remove(bundlePath());
    std::filesystem::remove(directory_.file("nvram/kelta_eventlog.debug"));
    pack();
    for (const char* command : {"info", "verify", "predict", "map"}) { // nor an alternate event
        expectRefused({"file", command});
    }
    expectRefused({"top"});
    EXPECT_EQ(test::run({"file", "crash", bundlePath()}).errors, "");
    EXPECT_THAT(test::run({"file", "list", bundlePath()}).output, HasSubstr("14:01:40"));
}

TEST_F(Support, AlternateEventsMayHaveAnyName) {
    const std::string latin = "kelta_alteventlog\xE9";
    const std::string longName = "kelta_alteventlog\u00e9" + std::string(120, 'x');
    for (const char* log : {"", ".debug", ".fatal-20261122T080000Z"}) { // long, and not looked at
        std::filesystem::remove(directory_.file("nvram/kelta_eventlog") + log);
    }
    std::map<std::string, std::string> files;
    for (const std::string& name : {latin, longName, longName + "\xE9", latin + "\xFF\u20AC"}) {
        files[name] = test::record({.time = 1'164'117'700}, name);
        write("nvram/aelfiles/" + name, files[name]);
    }
    for (const char* output : {"help.tar.gz", "help.tar"}) {
        Said said = test::run(
            {"support", "--nvram", directory_.file("nvram"), "-o", directory_.file(output)});
        EXPECT_LE(said.status, 1) << said.errors;
        const std::string packed = support::readFile(directory_.file(output));
        std::vector<std::string> problems;
        std::map<std::string, std::string> found;
        for (const bundle::Member& member : bundle::unpack(
                 {reinterpret_cast<const U8_t*>(packed.data()), packed.size()}, &problems)) {
            found[member.name] = std::string(member.bytes.begin(), member.bytes.end());
        }
        EXPECT_THAT(problems, testing::IsEmpty());
        for (const auto& [name, bytes] : files) {
            EXPECT_EQ(found["support/aelfiles/" + name], bytes) << output << " " << name;
        }
        Said listed = test::run({"file", "list", directory_.file(output)});
        EXPECT_EQ(listed.errors.find("checksum"), std::string::npos) << listed.errors;
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
