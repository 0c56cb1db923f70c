/** Sets of ids. */
#include "evbridge/id_runs.h"

#include <gmock/gmock.h>

using evbridge::IdRuns;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr U32_t LAST_ID = 0xFFFFFFFF;

std::string runsOf(const std::vector<U32_t>& ids) {
    IdRuns runs;
    for (const U32_t id : ids) {
        runs.add(id);
    }
    return runs.text();
}

std::vector<U32_t> missing(const std::string& runs, evbridge::IdRun held, size_t most = 100) {
    std::vector<U32_t> ids;
    IdRuns::parse(runs).forEachMissing(held, [&](U32_t id) {
        ids.push_back(id);
        return ids.size() < most;
    });
    return ids;
}

} // namespace

TEST(IdRunsTest, GrowAndJoinWithoutAHole) {
    EXPECT_EQ(runsOf({5, 7}), "5-5,7-7");
    EXPECT_EQ(runsOf({5, 7, 6}), "5-7");
    EXPECT_EQ(runsOf({5, 6, 7}), "5-7");
    EXPECT_EQ(runsOf({7, 6, 5}), "5-7");
    EXPECT_EQ(runsOf({5, 8, 6}), "5-6,8-8");
    EXPECT_EQ(runsOf({5, 8, 7}), "5-5,7-8");
    EXPECT_EQ(runsOf({8, 5, 5, 8}), "5-5,8-8");
    EXPECT_EQ(runsOf({0, LAST_ID, 1, LAST_ID - 1, LAST_ID}), "0-1,4294967294-4294967295");
}

TEST(IdRunsTest, KnowWhatTheyContain) {
    const IdRuns runs = IdRuns::parse("3-5,8-8");
    std::vector<U32_t> found;
    for (U32_t id = 0; id < 12; ++id) {
        if (runs.contains(id)) {
            found.push_back(id);
        }
    }
    EXPECT_THAT(found, ElementsAre(3, 4, 5, 8));
}

TEST(IdRunsTest, SayWhatIsMissingOfARun) {
    EXPECT_THAT(missing("3-5,8-8", {1, 10}), ElementsAre(1, 2, 6, 7, 9, 10));
    EXPECT_THAT(missing("3-5,8-8", {4, 8}), ElementsAre(6, 7));
    EXPECT_THAT(missing("3-5,8-8", {3, 5}), IsEmpty());
    EXPECT_THAT(missing("3-5", {5, 7}, 1), ElementsAre(6));
    EXPECT_THAT(missing("0-4294967293", {4'294'967'290, LAST_ID}),
                ElementsAre(LAST_ID - 1, LAST_ID));
}

TEST(IdRunsTest, AreReadBackAndNothingElseIs) {
    for (const char* text : {"", "0-0", "1-3,5-6", "0-4294967295"}) {
        EXPECT_EQ(IdRuns::parse(text).text(), text);
    }
    for (const char* text :
         {"1", "3-1", "1-3,4-5", "1-3,3-5", "1-3,2-2", "5-6,1-2", "1-3x", "x-3", "1-3,,5-6"}) {
        EXPECT_THROW(IdRuns::parse(text), std::runtime_error) << text;
    }
}
