#include "common/nearest.h"

#include <gtest/gtest.h>

using tools::didYouMean;
using tools::editDistance;
using tools::nearestName;

TEST(Nearest, DistanceCountsSingleChangesAndSwaps) {
    EXPECT_EQ(editDistance("", ""), 0U);
    EXPECT_EQ(editDistance("", "log"), 3U);
    EXPECT_EQ(editDistance("log", ""), 3U);
    EXPECT_EQ(editDistance("log", "log"), 0U);
    EXPECT_EQ(editDistance("lgo", "log"), 1U);
    EXPECT_EQ(editDistance("flie", "file"), 1U);
    EXPECT_EQ(editDistance("statsu", "stats"), 1U);
    EXPECT_EQ(editDistance("kitten", "sitting"), 3U);
}

TEST(Nearest, BeginningOfANameNamesIt) {
    EXPECT_EQ(nearestName("foll", {"get", "follow", "file"}), "follow");
}

TEST(Nearest, FirstOfTwoEquallyNearIsTaken) {
    EXPECT_EQ(nearestName("lost", {"list", "last"}), "list");
}

TEST(Nearest, NothingIsNearAnUnlikeWord) {
    EXPECT_EQ(nearestName("nonsense", {"log", "get", "file"}), std::nullopt);
    EXPECT_EQ(nearestName("xy", {"ab", "log"}), std::nullopt);
    EXPECT_EQ(nearestName("", {"log"}), std::nullopt);
    EXPECT_EQ(nearestName(std::string(65, 'l'), {"log"}), std::nullopt);
}

TEST(Nearest, QuestionIsAskedOnlyWhenThereIsAName) {
    EXPECT_EQ(didYouMean("fiel", {"file"}), "; did you mean 'file'?");
    EXPECT_EQ(didYouMean("nonsense", {"file"}), "");
}
