#include "blade.h"

#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>

using namespace support;

namespace {

constexpr U32_t FIRST = 1;
constexpr U32_t EXACT = 3;
constexpr U32_t LAST = 5;

Bytes bytes32(U32_t value) {
    return {static_cast<U8_t>(value >> 24), static_cast<U8_t>(value >> 16),
            static_cast<U8_t>(value >> 8), static_cast<U8_t>(value)};
}

/** The answer of this blade to an inquiry: 64 bytes of header, the event. */
Bytes ask(RunningEmp& emp, U32_t type, U32_t sequenceId) {
    emp.msm.send(makeMmsg({.type = 2, .requestor = 29, .local = {27}},
                          joined({bytes32(type), textField("CHASSIS-7"), textField("BLADE-42"),
                                  bytes32(3), bytes32(0), bytes32(sequenceId)})));
    return emp.msm.receive();
}

/** Data that tells the event that it belongs to. */
Bytes dataOf(U32_t sequenceId) {
    Bytes data(3848);
    for (size_t i = 0; i < data.size(); i++) {
        data[i] = static_cast<U8_t>(sequenceId * 7 + i % 50);
    }
    return data;
}

void expectEvent(const Bytes& answer, U32_t sequenceId) {
    EXPECT_EQ(number32(answer, 36), 1U) << "success";
    ASSERT_GE(answer.size(), 216U);
    EXPECT_EQ(number32(answer, 200), sequenceId);
    EXPECT_EQ(Bytes(answer.begin() + 216, answer.end()), dataOf(sequenceId)) << sequenceId;
}

TEST(Restart, KilledEventManagerLosesNothingThatItHasCopied) {
    Blade blade;
    U32_t next = 1;
    for (int life = 0; life < 4; life++) {
        RunningEmp emp(blade);
        emp.startQuietly();
        for (int i = 0; i < 3; i++, next++) {
            EXPECT_EQ(emp.log(18, dataOf(next)), next);
        }
        emp.kill();
    }
    RunningEmp emp(blade);
    emp.startQuietly();
    for (U32_t id = 1; id < next; id++) {
        expectEvent(ask(emp, EXACT, id), id);
    }
    EXPECT_EQ(emp.log(18, {}), next);
}

TEST(Restart, KillAtAnyMomentOfABurstLeavesAReadableLog) {
    Blade blade;
    U32_t copied = 0;
    for (int life = 0; life < 5; life++) {
        RunningEmp emp(blade);
        emp.startQuietly();
        Bytes burst;
        for (U32_t i = 1; i <= 20; i++) {
            burst = joined({burst, eventMessage(18, Bytes(100 * i, static_cast<U8_t>(i)))});
        }
        emp.msm.send(burst);
        for (int i = 0; i <= 4 * life; i++) {
            U32_t id = number32(emp.msm.receive(), 200);
            EXPECT_GT(id, copied) << "ids rise and none is given twice";
            copied = id;
        }
        emp.kill();
    }
    RunningEmp emp(blade);
    emp.startQuietly();
    for (U32_t id = 1; id <= copied; id++) {
        EXPECT_EQ(number32(ask(emp, EXACT, id), 36), 1U) << "what was copied is stored: " << id;
    }
}

TEST(Restart, WrappedLogGoesOnBehindItsNewestEvent) {
    Blade blade;
    constexpr U32_t EVENTS = 450; // 399 of them fill the file
    {
        RunningEmp emp(blade);
        emp.startQuietly();
        for (U32_t id = 1; id <= EVENTS; id++) {
            ASSERT_EQ(emp.log(18, dataOf(id)), id);
        }
        emp.kill();
    }
    EXPECT_EQ(blade.log().size(), 1'600'000U);
    RunningEmp emp(blade);
    emp.startQuietly();
    EXPECT_NE(
        emp.process.output().find("empProcessEventLogFile(): Event Log File is wrapped over.\n"),
        std::string::npos);
    expectEvent(ask(emp, LAST, 0), EVENTS);
    U32_t first = number32(ask(emp, FIRST, 0), 200);
    EXPECT_GT(first, 1U);
    EXPECT_GE(EVENTS - first, 395U) << "no more was given up than the ring needs";
    for (U32_t id = first; id <= EVENTS; id++) {
        expectEvent(ask(emp, EXACT, id), id);
    }
    for (U32_t id = EVENTS + 1; id <= EVENTS + 10; id++) {
        ASSERT_EQ(emp.log(18, dataOf(id)), id);
        expectEvent(ask(emp, LAST, 0), id);
    }
}

TEST(Restart, AnotherSlotBeginsTheNextInstance) {
    Blade blade;
    {
        RunningEmp emp(blade);
        emp.startQuietly();
        emp.log(18, {1});
        emp.kill();
    }
    blade.params().slotId = 4;
    RunningEmp emp(blade);
    emp.startQuietly();
    emp.msm.send(eventMessage(18, {}));
    Bytes copy = emp.msm.receive();
    EXPECT_EQ(number32(copy, 192), 4U) << "slot";
    EXPECT_EQ(number32(copy, 196), 1U) << "instance";
    EXPECT_EQ(number32(copy, 200), 1U) << "behind the new first entry";
}

/** Events 1 to 5, and foreign bytes between the second and the third: no start comes up with it. */
void leaveFatalLog(Blade& blade) {
    {
        RunningEmp emp(blade);
        emp.startQuietly();
        for (U32_t id = 1; id <= 5; id++) {
            EXPECT_EQ(emp.log(18, dataOf(id)), id);
        }
        emp.kill();
    }
    std::string log = blade.log();
    log.insert(200 + 2 * 4008, 77, 'x');
    log.resize(1'600'000);
    writeFile(blade.logPath(), log);
    RunningEmp emp(blade);
    emp.expectBugCheck("empProcessEventLogFile", "Continuous SequenceId with Gap? Bug somewhere!");
    EXPECT_EQ(blade.alternateFiles(), 24U);
}

void expectMended(const Blade& blade, const std::vector<std::string>& arguments) {
    Process evctl(commandOf("evctl", arguments), blade.file("evctl"));
    EXPECT_EQ(evctl.wait(), exitedWith(1)) << evctl.errorOutput(); // it has found something to do
}

/** The start takes the log as it is, and the bug-check's events behind it. */
void expectStartWithAllEvents(Blade& blade) {
    RunningEmp emp(blade);
    EXPECT_TRUE(emp.start().empty());
    for (U32_t id = 6; id < 6 + 24; id++) {
        EXPECT_EQ(number32(emp.msm.receive(), 200), id);
    }
    for (U32_t id = 1; id <= 5; id++) {
        expectEvent(ask(emp, EXACT, id), id);
    }
    EXPECT_EQ(emp.log(18, {}), 30U);
}

TEST(Restart, GuardPutsALogInThePlaceOfTheFatalOneThatTheNextStartTakesWhole) {
    Blade blade;
    leaveFatalLog(blade);
    expectMended(blade, {"file", "guard", blade.logPath()});
    expectStartWithAllEvents(blade);
}

TEST(Restart, SalvagedLogIsTakenWhole) {
    Blade blade;
    leaveFatalLog(blade);
    const std::string mended = blade.file("mended");
    expectMended(blade, {"file", "salvage", blade.logPath(), "--output", mended});
    std::filesystem::rename(mended, blade.logPath());
    expectStartWithAllEvents(blade);
}

} // namespace
