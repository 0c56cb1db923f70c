/** Summaries of stretches of an archive: they may keep too much, and must never leave out anything.
 */
#include "survey.h"

#include <gmock/gmock.h>

#include <random>

namespace {

using namespace evweb;

Zone zoneOf(const std::vector<EventColumns>& events) {
    Zone zone;
    for (const EventColumns& event : events) {
        zone.add(event);
    }
    zone.finish();
    return zone;
}

template <typename Number>
bool isIn(const std::vector<Number>& numbers, Number number) {
    return std::ranges::find(numbers, number) != numbers.end();
}

TEST(Zone, ThatMayHoldNothingOfASearchHoldsNothingOfIt) {
    std::mt19937 chance(1);
    const auto draw = [&chance](U32_t end) { return static_cast<U32_t>(chance() % end); };
    int left = 0;
    for (int round = 0; round < 2000; ++round) {
        std::vector<EventColumns> events(1 + draw(20));
        for (EventColumns& event : events) {
            event = {S64_t{draw(100)}, draw(4000), draw(40), draw(5), draw(8), draw(50)};
        }
        evctl::EventFilter filter;
        filter.since = draw(4000);
        filter.until = *filter.since + draw(600);
        filter.types = {draw(5)};
        filter.sources = {draw(40), draw(40), draw(40), draw(40)};
        filter.categories = {draw(8), draw(8), draw(8), draw(8)};
        if (draw(2) == 0) {
            filter.ids = {draw(50), draw(50), draw(50)};
        }
        const std::vector<S64_t> series = {S64_t{draw(100)}, S64_t{draw(100)}};
        const bool isThere = std::ranges::any_of(events, [&](const EventColumns& event) {
            return event.time >= filter.since && event.time <= filter.until &&
                   event.type == filter.types[0] && isIn(filter.sources, event.source) &&
                   isIn(filter.categories, event.category) &&
                   (filter.ids.empty() || isIn(filter.ids, event.event)) &&
                   isIn(series, event.series);
        });
        const bool mayBe = zoneOf(events).mayHold(needsOf(filter, series));
        EXPECT_TRUE(mayBe || !isThere);
        left += mayBe ? 0 : 1;
    }
    EXPECT_GT(left, 500); // and it is of use
}

TEST(Zone, KnowsWhichSourceSaidWhat) {
    // Each part of what is wanted is there, but in no event all of them.
    const Zone zone = zoneOf({{1, 0, 5, 3, 2, 7}, {70, 0, 6, 1, 2, 8}, {2, 0, 6, 3, 1, 9}});
    evctl::EventFilter filter;
    filter.sources = {6};
    filter.ids = {7};
    EXPECT_FALSE(zone.mayHold(needsOf(filter, {})));
    filter.ids = {7, 8};
    EXPECT_TRUE(zone.mayHold(needsOf(filter, {})));
    filter.types = {3};
    EXPECT_FALSE(zone.mayHold(needsOf(filter, {})));
    filter = {};
    filter.types = {3};
    filter.categories = {1};
    filter.sources = {5};
    EXPECT_FALSE(zone.mayHold(needsOf(filter, {})));
    filter.sources = {6};
    EXPECT_TRUE(zone.mayHold(needsOf(filter, {})));
    EXPECT_FALSE(zone.mayHold(needsOf({}, {6}))); // of six bits, 70 would be the same
    EXPECT_FALSE(zone.mayHold(needsOf({}, {100'000})));
}

TEST(Zone, NumbersThatNoEventHasLeaveNothingOut) {
    const Zone zone = zoneOf({{8192 + 5, 0, 5, 3, 64 + 2, 7}});
    evctl::EventFilter filter;
    filter.categories = {66};
    EXPECT_TRUE(zone.mayHold(needsOf(filter, {8197})));
}

TEST(Zone, CountsAreThoseOfItsEvents) {
    const Zone zone = zoneOf(
        {{1, 59, 1, 1, 1, 1}, {1, 60, 1, 3, 1, 1}, {1, 119, 1, 3, 1, 1}, {1, 7200, 1, 9, 1, 1}});
    Timeline timeline{.since = 0, .width = 60, .buckets = std::vector<TypeCounts>(3)};
    zone.countInto(timeline, {true, true, true, true});
    EXPECT_EQ(timeline.buckets,
              (std::vector<TypeCounts>{{0, 1, 0, 0}, {0, 0, 0, 2}, {0, 0, 0, 0}}));
}

TEST(Zone, FullOfOneMinuteIsCountedWhole) {
    const Zone zone = zoneOf(std::vector<EventColumns>(ZONE_ROWS, {1, 5, 1, 2, 1, 1}));
    Timeline timeline{.since = 0, .width = 60, .buckets = std::vector<TypeCounts>(1)};
    zone.countInto(timeline, {true, true, true, true});
    EXPECT_EQ(timeline.buckets[0][2], U64_t{ZONE_ROWS});
}

TEST(Zone, KindsAreCountedWhereAllLiesInOneBucket) {
    const Zone zone = zoneOf({{1, 3600, 5, 3, 2, 7},
                              {2, 3659, 5, 3, 2, 7},
                              {3, 3700, 5, 1, 2, 7},
                              {4, 7199, 6, 3, 2, 7}});
    evctl::EventFilter filter;
    filter.sources = {5};
    Timeline timeline{.since = 0, .width = 3600, .buckets = std::vector<TypeCounts>(2)};
    EXPECT_TRUE(zone.countKindsInto(timeline, needsOf(filter, {})));
    EXPECT_EQ(timeline.buckets, (std::vector<TypeCounts>{{}, {0, 1, 0, 2}}));
    filter.ids = {8};
    EXPECT_TRUE(zone.countKindsInto(timeline, needsOf(filter, {})));
    EXPECT_EQ(timeline.buckets[1], (TypeCounts{0, 1, 0, 2}));
    for (const U32_t since : {3601U, 3660U, 60U}) { // it begins before, or goes on behind
        Timeline other{.since = since, .width = 3600, .buckets = std::vector<TypeCounts>(2)};
        EXPECT_FALSE(zone.countKindsInto(other, needsOf(filter, {}))) << since;
    }
}

TEST(Zone, KindsThatStandForOthersAreNotCounted) {
    Timeline timeline{.since = 0, .width = 60, .buckets = std::vector<TypeCounts>(1)};
    evctl::EventFilter filter;
    filter.categories = {1};
    EXPECT_FALSE(zoneOf({{1, 5, 1, 3, 65, 1}}).countKindsInto(timeline, needsOf(filter, {})));
    filter.categories = {65};
    EXPECT_FALSE(zoneOf({{1, 5, 1, 3, 1, 1}}).countKindsInto(timeline, needsOf(filter, {})));
    filter = {};
    filter.types = {7};
    EXPECT_FALSE(zoneOf({{1, 5, 1, 9, 1, 1}}).countKindsInto(timeline, needsOf(filter, {})));
    EXPECT_EQ(timeline.buckets[0], TypeCounts{});
}

constexpr FileState STATE{1, 2, 3};

TEST(Survey, BeginsWithTheNewestAndLeavesTheLastTwoZones) {
    Survey survey;
    EXPECT_EQ(survey.nextUnknown(STATE, 1, 2 * ZONE_ROWS - 1), std::nullopt);
    EXPECT_EQ(survey.nextUnknown(STATE, 1, 5 * ZONE_ROWS), 3);
    survey.put(3, std::make_shared<Zone>());
    EXPECT_EQ(survey.nextUnknown(STATE, 1, 5 * ZONE_ROWS), 2);
    EXPECT_EQ(survey.known(), 0.25);
}

TEST(Survey, ZonesThatRetentionTookAreNotReadAgain) {
    Survey survey;
    EXPECT_EQ(survey.nextUnknown(STATE, 3 * ZONE_ROWS + 5, 5 * ZONE_ROWS), 3);
    survey.put(3, std::make_shared<Zone>());
    EXPECT_EQ(survey.nextUnknown(STATE, 3 * ZONE_ROWS + 5, 5 * ZONE_ROWS), std::nullopt);
    EXPECT_EQ(survey.known(), 1);
}

TEST(Survey, OfAnotherFileOrStateIsForgotten) {
    Survey survey;
    survey.nextUnknown(STATE, 1, 5 * ZONE_ROWS);
    survey.put(3, std::make_shared<Zone>());
    EXPECT_TRUE(survey.zones({1, 2, 4}).empty());
    EXPECT_EQ(survey.nextUnknown({1, 2, 4}, 1, 5 * ZONE_ROWS), 3);
}

TEST(Survey, RowsThatWereTakenFromTheEndAreForgotten) {
    Survey survey;
    survey.nextUnknown(STATE, 1, 5 * ZONE_ROWS);
    survey.put(3, std::make_shared<Zone>());
    survey.nextUnknown(STATE, 1, 3 * ZONE_ROWS);
    EXPECT_EQ(survey.nextUnknown(STATE, 1, 5 * ZONE_ROWS), 3);
}

} // namespace
