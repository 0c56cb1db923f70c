/** evctl on a terminal: the pager, the width, colours, and the live picture. */
#include "../../unit/evlog/log_image.h"

#include "mmsg_client.h"
#include "playing_switch.h"
#include "terminal.h"

#include <gmock/gmock.h>

#include <csignal>
#include <sys/stat.h>
#include <unistd.h>

using support::Bytes;
using support::Ending;
using support::exitedWith;
using support::Terminal;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr char ENTER[] = "\x1B[?1049h\x1B[?25l";
constexpr char LEAVE[] = "\x1B[?25h\x1B[?1049l";

class OnATerminal : public testing::Test {
  protected:
    OnATerminal() {
        test::LogImage log;
        log.firstEntry();
        for (uint32_t id = 1; id <= 60; id++) {
            log.raw(test::record({.id = id}, "event " + std::to_string(id)));
        }
        log.dummy();
        log.zerosTo();
        support::writeFile(log_, log.bytes);
    }

    /** Runs to the end. @return what stood on the terminal */
    std::string run(std::vector<std::string> arguments, unsigned short columns,
                    const support::Process::Environment& extra) {
        Terminal terminal(support::commandOf("evctl", arguments), columns, withTerm(extra));
        Ending ending;
        std::string output = terminal.wait(&ending);
        EXPECT_EQ(ending, exitedWith(0)) << output;
        return output;
    }
    std::string list(std::vector<std::string> arguments,
                     const support::Process::Environment& extra = {{"PAGER", ""}},
                     unsigned short columns = 100) {
        arguments.insert(arguments.begin(), {"file", "list", log_});
        return run(arguments, columns, extra);
    }
    std::string script(const std::string& name, const std::string& commands) {
        std::string path = directory_.file(name);
        support::writeFile(path, "#!/bin/sh\n" + commands + "\n");
        chmod(path.c_str(), 0700);
        return path;
    }
    static support::Process::Environment withTerm(support::Process::Environment extra) {
        extra.insert(extra.begin(), {{"TERM", "xterm"}, {"NO_COLOR", ""}, {"EVCTL_PAGER", ""}});
        return extra;
    }

    support::TempDirectory directory_;
    std::string log_ = directory_.file("kelta_eventlog");
};

} // namespace

TEST_F(OnATerminal, LinesAreCutToItsWidth) {
    EXPECT_EQ(list({"-n", "1", "--color=never"}, {{"PAGER", ""}}, 35),
              "        60  11-21T14:00:00  w  eve\u2026\r\n");
    EXPECT_THAT(list({"-n", "1", "-o", "json"}, {}, 40), EndsWith("\"text\":\"event 60\"}\r\n"));
}

TEST_F(OnATerminal, TheTextIsSeenOnANarrowOne) {
    const std::string line = "        60  2006-11-21T14:00:00Z  warning  startup 300  event 60\r\n";
    EXPECT_EQ(list({"-n", "1", "--color=never"}, {}, 80), line);
    EXPECT_EQ(list({"-n", "1", "--color=never"}, {{"EVCTL_PAGER", "sed s/^/P:/"}}, 80),
              "P:" + line);
    EXPECT_THAT(list({"-n", "1", "--color=never"}, {}, 130), HasSubstr("  disk           300  "));
}

TEST_F(OnATerminal, TheTextIsSeenOnAVeryNarrowOneWithoutAPager) {
    const support::Process::Environment none = {{"PAGER", ""}};
    EXPECT_EQ(list({"-n", "1", "--color=never"}, none, 40),
              "        60  11-21T14:00:00  w  event 60\r\n");
    EXPECT_THAT(list({"-n", "1", "--color=never"}, none, 72),
                HasSubstr("Z  warning  startup 300  e"));
    EXPECT_THAT(list({"-n", "1", "--color=never"}, none, 71), HasSubstr("0  w  event 60\r\n"));
    EXPECT_EQ(list({"-n", "1", "--color=never"}, {{"EVCTL_PAGER", "sed s/^/P:/"}}, 40),
              "P:        60  2006-11-21T14:00:00Z  warning  startup 300  event 60\r\n")
        << "there it may be scrolled";
}

TEST_F(OnATerminal, ColoursAreSparedWhereTheyAreNotWanted) {
    EXPECT_THAT(list({"-n", "1"}), StartsWith("\x1B[33m        60"));
    EXPECT_THAT(list({"-n", "1"}, {{"NO_COLOR", "1"}}), Not(HasSubstr("\x1B")));
    EXPECT_THAT(list({"-n", "1"}, {{"TERM", "dumb"}}), Not(HasSubstr("\x1B")));
    EXPECT_THAT(list({"-n", "1"}, {{"TERM", "dumb"}}), StartsWith("        60"));
}

TEST_F(OnATerminal, APagerGetsWholeLinesInColourIfItShowsThem) {
    std::string less = script("less", "exec sed s/^/P:/");
    support::Process::Environment pager = {{"EVCTL_PAGER", less}, {"PAGER", "false"}};
    std::string output = list({"-n", "2"}, pager, 40);
    EXPECT_THAT(output, StartsWith("P:\x1B[33m        59  "));
    EXPECT_THAT(output, HasSubstr("event 59\x1B[0m\r\nP:"));
    EXPECT_THAT(list({"-n", "2", "--no-pager"}, pager), Not(HasSubstr("P:")));
    pager.emplace_back("LESS", "-X");
    EXPECT_THAT(list({"-n", "2"}, pager), StartsWith("P:        59  "));
    EXPECT_THAT(list({"-n", "2"}, {{"EVCTL_PAGER", "sed s/^/P:/"}}), StartsWith("P:        59  "));
    EXPECT_THAT(list({"-n", "1", "--color=always"}, {{"EVCTL_PAGER", "sed s/^/P:/"}}),
                StartsWith("P:\x1B[33m        60  "));
}

TEST_F(OnATerminal, LongPagesGoThroughThePagerToo) {
    const support::Process::Environment pager = {{"EVCTL_PAGER", "sed s/^/P:/"}};
    for (std::vector<std::string> command : std::vector<std::vector<std::string>>{
             {"file", "map", log_},
             {"stats", log_},
             {"ael", "list", directory_.makeDirectory("aelfiles"), "--show-cursor"}}) {
        EXPECT_THAT(run(command, 100, pager), StartsWith("P:")) << command[1];
        command.emplace_back("--no-pager");
        EXPECT_THAT(run(command, 100, pager), Not(HasSubstr("P:"))) << command[1];
    }
    EXPECT_THAT(run({"stats", log_}, 60, pager), Not(HasSubstr(std::string(61, '#'))))
        << "its width";
}

TEST_F(OnATerminal, APagerThatHasSeenEnoughEndsTheListing) {
    EXPECT_THAT(list({}, {{"EVCTL_PAGER", "head -n 1"}}), EndsWith("CHASSIS-1\r\n"));
    EXPECT_EQ(list({}, {{"EVCTL_PAGER", "true"}}), "");
}

TEST_F(OnATerminal, APagerThatCannotBeRunIsSaidAndDoneWithout) {
    for (const char* pager : {"/nonexistent/pager -x", "nonexistent", "/"}) {
        std::string output = list({"-n", "1", "--color=never"}, {{"EVCTL_PAGER", pager}});
        EXPECT_THAT(output, StartsWith("evctl: the pager '" + std::string(pager) + "' cannot be "));
        EXPECT_THAT(output, HasSubstr("\r\n        60  2006-11-21T14:00:00Z  warning"));
    }
}

TEST_F(OnATerminal, APagerThatTurnsOutNotToRunIsAFailure) {
    std::string cursor = directory_.file("cursor");
    for (const char* pager : {"exec '/nonexistent/pager'", "exec '/'"}) {
        Terminal terminal(
            support::commandOf("evctl", {"file", "list", log_, "-n", "1", "--cursor-file", cursor}),
            100, withTerm({{"EVCTL_PAGER", pager}}));
        Ending ending;
        EXPECT_THAT(terminal.wait(&ending),
                    HasSubstr("so nothing was shown; --no-pager shows it\r\n"));
        EXPECT_EQ(ending, exitedWith(2));
        EXPECT_NE(access(cursor.c_str(), F_OK), 0); // the events come again
    }
}

TEST_F(OnATerminal, OptionsThatTheUserHasSetForLessAreKept) {
    EXPECT_EQ(list({}, {{"EVCTL_PAGER", "echo \"$LESS\""}}), "FRSXMK\r\n");
    EXPECT_EQ(list({}, {{"EVCTL_PAGER", "echo \"$LESS\""}, {"LESS", "-X"}}), "-X\r\n");
}

TEST_F(OnATerminal, TheInterruptKeyIsThePagers) {
    std::string pager = script("pager", "trap 'kill $!; echo over; exit 0' INT\n"
                                        "sleep 60 > /dev/null 2>&1 &\necho ready\nwait");
    Terminal terminal(support::commandOf("evctl", {"file", "list", log_}), 100,
                      withTerm({{"EVCTL_PAGER", pager}}));
    terminal.waitFor("ready");
    terminal.type("\x03");
    Ending ending;
    EXPECT_THAT(terminal.wait(&ending), EndsWith("over\r\n"));
    EXPECT_EQ(ending, exitedWith(0));
}

TEST_F(OnATerminal, APagerOfTheNameCatIsNone) {
    EXPECT_EQ(list({"-n", "1", "--color=never"}, {{"EVCTL_PAGER", "cat"}}, 40),
              "        60  11-21T14:00:00  w  event 60\r\n");
}

namespace {

/** evctl top on a terminal, and what it leaves behind. */
class TopOnATerminal : public OnATerminal {
  protected:
    std::vector<std::string> top(const std::string& interval = "0.1") {
        return support::commandOf("evctl", {"top", "--interval", interval, log_});
    }
    /** The terminal is as it was, and the screen too. */
    void expectClean(Terminal& terminal, const struct termios& before, const Ending& expected) {
        Ending ending;
        std::string output = terminal.wait(&ending);
        EXPECT_EQ(ending, expected);
        EXPECT_THAT(output, StartsWith(ENTER));
        EXPECT_THAT(output, EndsWith(LEAVE));
        EXPECT_EQ(terminal.settings().c_lflag, before.c_lflag);
        EXPECT_EQ(terminal.settings().c_lflag & (ICANON | ECHO), tcflag_t{ICANON | ECHO});
    }
};

} // namespace

TEST_F(TopOnATerminal, EndsWithTheKeyAndLeavesTheTerminalAsItWas) {
    Terminal terminal(top(), 120, withTerm({}));
    struct termios before = terminal.settings();
    terminal.waitFor("startup");
    EXPECT_EQ(terminal.settings().c_lflag & (ICANON | ECHO), 0U);
    terminal.type("xq");
    expectClean(terminal, before, exitedWith(0));
}

TEST_F(TopOnATerminal, EndsOfASignalAndLeavesTheTerminalAsItWas) {
    for (int number : {SIGTERM, SIGINT, SIGHUP}) {
        Terminal terminal(top(), 120, withTerm({}));
        struct termios before = terminal.settings();
        terminal.waitFor("startup");
        kill(terminal.pid(), number);
        expectClean(terminal, before, support::diedOf(number));
    }
}

TEST_F(TopOnATerminal, TheInterruptKeyEndsIt) {
    Terminal terminal(top(), 120, withTerm({}));
    struct termios before = terminal.settings();
    terminal.waitFor("startup");
    terminal.type("\x03");
    expectClean(terminal, before, support::diedOf(SIGINT));
}

TEST_F(TopOnATerminal, WhatTakesNothingButTextGetsOnePictureBelowTheOther) {
    std::vector<std::string> command = top();
    command.insert(command.end(), {"-n", "1"});
    Terminal terminal(command, 120, withTerm({{"TERM", "dumb"}}));
    Ending ending;
    EXPECT_THAT(terminal.wait(&ending), Not(HasSubstr("\x1B")));
    EXPECT_EQ(ending, exitedWith(0));
}

TEST_F(TopOnATerminal, LinesAreCutToTheWidthThatItGets) {
    Terminal terminal(top("60"), 60, withTerm({}));
    EXPECT_THAT(terminal.waitFor("startup"), Not(HasSubstr("unwrapped")));
    terminal.resize(120);
    terminal.waitFor("unwrapped");
}

TEST_F(TopOnATerminal, ALogThatIsAwayForAMomentIsSaid) {
    Terminal terminal(top(), 120, withTerm({}));
    terminal.waitFor("newest event 60");
    rename(log_.c_str(), directory_.file("away").c_str());
    size_t seen = terminal.waitFor("No such file").size();
    rename(directory_.file("away").c_str(), log_.c_str());
    support::requireSoon(
        [&] { return terminal.waitFor("").find("newest event 60", seen) != std::string::npos; },
        "the log again");
}

TEST_F(TopOnATerminal, ShowsWhatComes) {
    Terminal terminal(top(), 120, withTerm({}));
    terminal.waitFor("newest event 60");
    std::string more = support::readFile(log_);
    std::string next = test::record({.id = 61}, "more");
    test::LogImage dummy;
    dummy.dummy();
    size_t end = more.find(dummy.bytes.substr(8));
    more.replace(end - 8, next.size() + dummy.bytes.size(), next + dummy.bytes);
    support::writeFile(log_, more);
    terminal.waitFor("newest event 61");
}

namespace {

class TopOfABlade : public support::PlayingSwitch {
  protected:
    TopOfABlade() {
        test::LogImage log;
        log.firstEntry();
        log.dummy();
        log.zerosTo();
        support::writeFile(log_, log.bytes);
    }
    std::string log_ = directory_.file("kelta_eventlog");
};

} // namespace

TEST_F(TopOfABlade, ElsewhereOnePictureStandsBelowTheOther) {
    support::Process evctl = start({"top", log_, "-n", "2", "--interval", "0.1"});
    support::MmsgClient peer = listener_.accept();
    Bytes status = {192, 0, 2, 7, 0x23, 0x28, 0, 1, 0, 0, 0, 0, 0, 0, 0, 5, 0, 0, 0, 6};
    for (int picture = 0; picture < 2; picture++) {
        Bytes asked = peer.receive();
        EXPECT_EQ(asked[15], EMP_E_MSGS_GET_EVENT_MANAGER_STATUS);
        peer.send(support::makeMmsg({.type = asked[15],
                                     .requestor = 27,
                                     .cont = 0x40,
                                     .dest = 28,
                                     .local = {28},
                                     .returnCode = 1,
                                     .handle = support::headerOf(asked).handle},
                                    status));
    }
    EXPECT_EQ(evctl.wait(), exitedWith(0)) << evctl.errorOutput();
    EXPECT_THAT(evctl.output(), Not(HasSubstr("\x1B")));
    EXPECT_THAT(evctl.output(),
                HasSubstr("\nlink  192.0.2.7:9000, up or being set up; inquiries timed out 0, "
                          "connections closed 5, tried 6\n"));
    EXPECT_THAT(evctl.output(), HasSubstr("\n\n20")); // the second one begins with its time
}

TEST_F(TopOfABlade, AnEventManagerThatIsAwayIsShown) {
    support::Process evctl = start({"top", log_, "-n", "1"});
    listener_.accept().close();
    EXPECT_EQ(evctl.wait(), exitedWith(0)) << evctl.errorOutput();
    EXPECT_THAT(evctl.output(), HasSubstr("\nlink  unknown: "));
}

TEST_F(TopOfABlade, WithoutALogIsRefused) {
    support::Process evctl = start({"top", directory_.file("none"), "-n", "1"});
    EXPECT_EQ(evctl.wait(), exitedWith(2));
    EXPECT_THAT(evctl.errorOutput(), HasSubstr("none: No such file or directory\n"));
    EXPECT_EQ(evctl.output(), "");
}
