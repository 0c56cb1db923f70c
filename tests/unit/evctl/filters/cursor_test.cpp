#include "evctl/filters/cursor.h"

#include "../../evlog/log_image.h"

#include <gmock/gmock.h>

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

using Ids = std::vector<uint32_t>;

/** A source of events as they are. */
std::unique_ptr<sources::Source> logOf(const std::vector<test::RecordFields>& events) {
    std::string bytes;
    for (const test::RecordFields& event : events) {
        bytes += test::record(event, "x");
    }
    return sources::logSource({.name = "log"}, test::imageOf(bytes));
}

/** The ids that are wanted of sources, and what is said of them. */
struct Found {
    Ids ids;
    std::string notes;

    bool operator==(const Found&) const = default;
};

std::ostream& operator<<(std::ostream& stream, const Found& found) {
    return stream << testing::PrintToString(found.ids) << " " << found.notes;
}

Found found(const Cursor& cursor, const std::vector<sources::Source*>& all,
            bool inclusive = false) {
    Resume resume(cursor, inclusive);
    for (sources::Source* source : all) {
        resume.look(*source);
    }
    Found found;
    for (sources::Source* source : all) {
        while (std::optional<sources::Event> event = source->next()) {
            if (resume.wants(*event)) {
                found.ids.push_back(event->view.header->evSequenceId);
            }
        }
    }
    for (const std::string& note : resume.notes()) {
        found.notes += note + "\n";
    }
    return found;
}

Ids wanted(const Cursor& cursor, const std::unique_ptr<sources::Source>& source,
           bool inclusive = false) {
    return found(cursor, {source.get()}, inclusive).ids;
}

std::string notThere(uint32_t instance, uint32_t id, const std::string& shown) {
    return "event " + std::to_string(id) + " of instance " + std::to_string(instance) +
           ", where the cursor stands, is not there; " + shown + "\n";
}

constexpr char ALL[] = "all of its log is shown";
constexpr char NEWER[] = "what is newer is shown";

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

TEST(Cursors, WithTheirEventThereNothingIsSaid) {
    EXPECT_EQ(found(behind(log(1, 3, 100)), {log(1, 5, 100).get()}).notes, "");
    EXPECT_EQ(found(behind(log(1, 3, 100)), {log(1, 3, 100).get()}).notes, "");
}

TEST(Cursors, AnOlderStateOfALogThatIsThereHasNothingBehindThem) {
    auto older = log(1, 2, 100);
    auto whole = log(1, 4, 100);
    EXPECT_EQ(found(behind(log(1, 3, 100)), {older.get(), whole.get()}), (Found{{4}, ""}));
}

TEST(Cursors, AnOlderStateAloneMayBeAnyLogSoAllOfItIsWantedAndThatIsSaid) {
    EXPECT_EQ(found(behind(log(1, 3, 100)), {log(1, 2, 100).get()}),
              (Found{{1, 2}, notThere(7, 3, ALL)}));
}

TEST(Cursors, OfALogThatWasRebuiltWithItsClockSetBackAllIsWantedAndThatIsSaid) {
    Cursor cursor = behind(log(1, 30, 5000));
    EXPECT_EQ(found(cursor, {log(0, 3, 100).get()}), (Found{{0, 1, 2}, notThere(7, 30, ALL)}));
    EXPECT_EQ(found(cursor, {log(0, 2, 100, {.instance = 0}).get()}),
              (Found{{0, 1}, notThere(7, 30, ALL)}));
    auto passedIt = log(28, 4, 100); // counts as far, at other times
    EXPECT_EQ(found(cursor, {passedIt.get()}), (Found{{28, 29, 30, 31}, notThere(7, 30, ALL)}));
    passedIt->rewind();
    EXPECT_EQ(found(behind(std::move(passedIt)), {log(28, 5, 100).get()}), (Found{{32}, ""}));
}

// The instance rises where the ids wrap, and falls back at a start, which reads the first record.
TEST(Cursors, WhatWasCountedBehindTheirEventIsWantedWhateverInstancesAndTimes) {
    const std::vector<test::RecordFields> events = {{.instance = 7, .id = 0xFFFF'FFFE, .time = 900},
                                                    {.instance = 7, .id = 0xFFFF'FFFF, .time = 901},
                                                    {.instance = 8, .id = 0, .time = 902},
                                                    {.instance = 8, .id = 1, .time = 50},
                                                    {.instance = 7, .id = 2, .time = 51},
                                                    {.instance = 7, .id = 3, .time = 904}};
    for (size_t read = 0; read < events.size(); read++) {
        Ids behindIt;
        for (size_t at = read + 1; at < events.size(); at++) {
            behindIt.push_back(events[at].id);
        }
        Found rest = found(behind(logOf({events[read]})), {logOf(events).get()});
        // Those of before the wrap come last: a log is read as the event manager's start reads it.
        EXPECT_THAT(rest.ids, testing::UnorderedElementsAreArray(behindIt)) << read;
        EXPECT_EQ(rest.notes, "") << read;
    }
}

TEST(Cursors, WhenTheIdsHaveWrappedAndTheirEventIsOverwrittenNothingIsPassedOver) {
    Cursor cursor = behind(logOf({{.instance = 7, .id = 0xFFFF'FF00, .time = 900}}));
    auto fallenBack =
        logOf({{.instance = 8, .id = 1, .time = 950}, {.instance = 7, .id = 2, .time = 951}});
    EXPECT_EQ(found(cursor, {fallenBack.get()}),
              (Found{{1, 2}, "log: " + notThere(7, 0xFFFF'FF00, NEWER)}));
    EXPECT_EQ(found(cursor, {logOf({{.instance = 7, .id = 2, .time = 951}}).get()}),
              (Found{{2}, "log: " + notThere(7, 0xFFFF'FF00, NEWER)}));
    cursor = behind(logOf({{.instance = 8, .id = 1, .time = 950}}));
    auto mixed =
        logOf({{.instance = 8, .id = 2, .time = 951}, {.instance = 7, .id = 3, .time = 20}});
    EXPECT_EQ(found(cursor, {mixed.get()}), (Found{{2, 3}, "log: " + notThere(8, 1, NEWER)}));
}

TEST(Cursors, OfALogThatHasGoneRoundTheRestIsWantedAndThatIsSaid) {
    EXPECT_EQ(found(behind(log(1, 3, 100)), {log(9, 2, 200).get()}),
              (Found{{9, 10}, notThere(7, 3, NEWER)}));
}

TEST(Cursors, OfALogInWhichTheirEventIsDamagedTheNewerOnesAreWantedAndThatIsSaid) {
    auto damaged = logOf({{.id = 2, .time = 101}, {.id = 4, .time = 103}});
    EXPECT_EQ(found(behind(log(1, 3, 100)), {damaged.get()}),
              (Found{{4}, "log: " + notThere(7, 3, NEWER)}));
}

TEST(Cursors, OfALogThatHasBegunAgainAllIsWanted) {
    Cursor cursor = behind(log(1, 30, 100));
    EXPECT_EQ(wanted(cursor, log(0, 3, 500)), (Ids{0, 1, 2}));
    Cursor short_ = behind(log(1, 2, 100));
    EXPECT_EQ(wanted(short_, log(0, 5, 500)),
              (Ids{0, 1, 2, 3, 4})); // has other events in its place
}

TEST(Cursors, OfALogThatWasClearedAllIsWantedAndThatIsSaid) {
    Cursor cursor = behind(log(1, 3, 100));
    EXPECT_EQ(found(cursor, {log(0, 2, 50, {.instance = 8}).get()}),
              (Found{{0, 1}, notThere(7, 3, NEWER)}));
}

TEST(Cursors, OfAnEarlierInstanceNothingIsWantedWhileTheirEventIsThere) {
    auto earlier = log(0, 9, 50, {.instance = 6}); // which has counted further
    auto log7 = log(1, 4, 100);
    EXPECT_EQ(found(behind(log(1, 3, 100)), {earlier.get(), log7.get()}), (Found{{4}, ""}));
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
    EXPECT_EQ(wanted(cursor, place(sources::Kind::LOG, {1, 2, 3, 4})), (Ids{1, 2, 3, 4}));
    EXPECT_EQ(wanted(cursor, place(sources::Kind::DAMAGED_COPY, {1, 2, 3, 4})), Ids{4});
}

TEST(Cursors, NamesDoNotRunIntoEachOther) {
    Cursor cursor = behind(place(sources::Kind::LOG, {3}, {.enclosure = "AB", .blade = "C"}));
    auto other = place(sources::Kind::LOG, {3, 4}, {.enclosure = "A", .blade = "BC"});
    EXPECT_EQ(wanted(cursor, std::move(other)), (Ids{3, 4}));
}

TEST(Cursors, AnOlderStateOfTheSameSecondHasNotBegunAgain) {
    auto older = place(sources::Kind::LOG, {1, 2});
    auto whole = place(sources::Kind::LOG, {1, 2, 3});
    EXPECT_EQ(found(behind(place(sources::Kind::LOG, {1, 2, 3})), {older.get(), whole.get()}).ids,
              Ids{});
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
