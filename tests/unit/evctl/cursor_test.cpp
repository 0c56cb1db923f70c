#include "evctl/cursor.h"

#include "../evlog/log_image.h"

#include <gtest/gtest.h>

using evctl::Cursor;
using evctl::Resume;

namespace {

/** A source of events of instance 7, one a second from @p firstTime on. */
std::unique_ptr<sources::Source> log(uint32_t firstId, uint32_t count, uint32_t firstTime,
                                     const test::RecordFields& fields = {}) {
    std::string bytes;
    for (uint32_t at = 0; at < count; at++) {
        test::RecordFields event = fields;
        event.id = firstId + at;
        event.time = firstTime + at;
        bytes += test::record(event, "x");
    }
    return sources::logSource({}, test::imageOf(bytes));
}

/** Such events, all of one second, in a place of @p kind. */
std::unique_ptr<sources::Source> place(sources::Kind kind, std::initializer_list<uint32_t> ids,
                                       const test::RecordFields& fields = {}) {
    std::string bytes;
    for (uint32_t id : ids) {
        test::RecordFields event = fields;
        event.id = id;
        event.time = 100;
        bytes += test::record(event, "x");
    }
    return sources::logSource({.name = "", .kind = kind}, test::imageOf(bytes));
}

/** A cursor behind all events of a source. */
Cursor behind(std::unique_ptr<sources::Source> source) {
    Cursor cursor;
    while (std::optional<sources::Event> event = source->next()) {
        cursor.moveTo(*event);
    }
    return *Cursor::parse(cursor.text());
}

/** The ids that are wanted of a source. */
std::vector<uint32_t> wanted(const Cursor& cursor, std::unique_ptr<sources::Source> source,
                             bool inclusive = false) {
    Resume resume(cursor, inclusive);
    resume.look(*source);
    std::vector<uint32_t> ids;
    while (std::optional<sources::Event> event = source->next()) {
        if (resume.wants(*event)) {
            ids.push_back(event->view.header->evSequenceId);
        }
    }
    return ids;
}

using Ids = std::vector<uint32_t>;

} // namespace

TEST(Cursors, AreATextAndBack) {
    Cursor cursor = behind(log(1, 3, 100));
    EXPECT_EQ(cursor.text().substr(0, 3), "c1:");
    EXPECT_EQ(cursor.text().substr(19), ".7.3.66");
    EXPECT_EQ(Cursor::parse(cursor.text())->text(), cursor.text());
    EXPECT_EQ(Cursor::parse("c1:")->text(), "c1:");
}

TEST(Cursors, OtherTextsAreNone) {
    for (const char* text : {"", "c2:1.2.3.4", "c1:1", "c1:1.2.3", "c1:1.2.3.4,", "c1:1.2.3.4;",
                             "c1:1.2.3.100000000", "c1:x.2.3.4", "c1:-1.2.3.4", "c1:1.2.3.4 "}) {
        EXPECT_FALSE(Cursor::parse(text)) << text;
    }
}

TEST(Cursors, WhatComesBehindIsWanted) {
    Cursor cursor = behind(log(1, 3, 100));
    EXPECT_EQ(wanted(cursor, log(1, 5, 100)), (Ids{4, 5}));
    EXPECT_EQ(wanted(cursor, log(1, 5, 100), true), (Ids{3, 4, 5}));
    EXPECT_EQ(wanted(cursor, log(1, 3, 100)), Ids{});
}

TEST(Cursors, AnOlderStateOfTheLogHasNothingBehindThem) {
    EXPECT_EQ(wanted(behind(log(1, 3, 100)), log(1, 2, 100)), Ids{});
}

TEST(Cursors, OfALogThatHasGoneRoundTheRestIsWanted) {
    EXPECT_EQ(wanted(behind(log(1, 3, 100)), log(9, 2, 200)), (Ids{9, 10}));
}

TEST(Cursors, OfALogThatHasBegunAgainAllIsWanted) {
    Cursor cursor = behind(log(1, 30, 100));
    EXPECT_EQ(wanted(cursor, log(0, 3, 500)), (Ids{0, 1, 2}));
    Cursor short_ = behind(log(1, 2, 100));
    EXPECT_EQ(wanted(short_, log(0, 5, 500)),
              (Ids{0, 1, 2, 3, 4})); // has other events in its place
}

TEST(Cursors, OfALaterInstanceAllIsWantedOfAnEarlierOneNothing) {
    Cursor cursor = behind(log(1, 3, 100));
    EXPECT_EQ(wanted(cursor, log(0, 2, 50, {.instance = 8})), (Ids{0, 1}));
    EXPECT_EQ(wanted(cursor, log(0, 2, 50, {.instance = 6})), Ids{});
}

TEST(Cursors, LogsThatAreNotInThemAreWantedWhole) {
    Cursor cursor = behind(log(1, 3, 100));
    EXPECT_EQ(wanted(cursor, log(1, 2, 100, {.slot = 3})), (Ids{1, 2}));
    EXPECT_EQ(wanted(cursor, log(1, 2, 100, {.enclosure = "CHASSIS-2"})), (Ids{1, 2}));
}

TEST(Cursors, AlternateEventsAreWantedAlwaysForTheyHaveNoOrder) {
    auto alternate = [] { return place(sources::Kind::ALTERNATE, {5}); };
    EXPECT_EQ(behind(alternate()).text(), "c1:");
    EXPECT_EQ(wanted(behind(place(sources::Kind::LOG, {9})), alternate()), Ids{5});
}

TEST(Cursors, ADamagedCopyIsNotItsLog) {
    Cursor cursor = behind(place(sources::Kind::DAMAGED_COPY, {1, 2, 3}));
    EXPECT_EQ(wanted(cursor, place(sources::Kind::LOG, {1, 2})), (Ids{1, 2}));
    EXPECT_EQ(wanted(cursor, place(sources::Kind::DAMAGED_COPY, {1, 2, 3, 4})), Ids{4});
}

TEST(Cursors, NamesDoNotRunIntoEachOther) {
    Cursor cursor = behind(place(sources::Kind::LOG, {3}, {.enclosure = "AB", .blade = "C"}));
    auto other = place(sources::Kind::LOG, {1}, {.enclosure = "A", .blade = "BC"});
    EXPECT_EQ(wanted(cursor, std::move(other)), Ids{1});
}

TEST(Cursors, AnOlderStateOfTheSameSecondHasNotBegunAgain) {
    Cursor cursor = behind(place(sources::Kind::LOG, {1, 2, 3}));
    EXPECT_EQ(wanted(cursor, place(sources::Kind::LOG, {1, 2})), Ids{});
}

TEST(Cursors, WhereTheMarkedEventIsDamagedTheRestIsWanted) {
    Cursor cursor = behind(log(1, 3, 100));
    std::string bytes;
    for (uint32_t id : {1, 2, 4, 5}) {
        bytes += test::record({.id = id, .time = 99 + id}, "x");
    }
    EXPECT_EQ(wanted(cursor, sources::logSource({}, test::imageOf(bytes))), (Ids{4, 5}));
}

TEST(Cursors, EachStateOfALogIsJudgedByItself) {
    Resume resume(behind(log(1, 3, 100)), false);
    auto same = log(1, 4, 100);
    auto anew = log(0, 2, 500);
    resume.look(*same);
    resume.look(*anew);
    Ids ids;
    for (sources::Source* source : {same.get(), anew.get()}) {
        while (std::optional<sources::Event> event = source->next()) {
            if (resume.wants(*event)) {
                ids.push_back(event->view.header->evSequenceId);
            }
        }
    }
    EXPECT_EQ(ids, (Ids{4, 0, 1}));
}

TEST(Cursors, HoldForSeveralLogs) {
    Cursor cursor = behind(log(1, 3, 100));
    auto other = log(5, 2, 100, {.slot = 3});
    while (std::optional<sources::Event> event = other->next()) {
        cursor.moveTo(*event);
    }
    EXPECT_EQ(wanted(cursor, log(1, 4, 100)), Ids{4});
    EXPECT_EQ(wanted(cursor, log(5, 4, 100, {.slot = 3})), (Ids{7, 8}));
}
