#include "evfleet/options.h"

#include <gtest/gtest.h>

namespace {

using evfleet::FleetOptions;

std::variant<FleetOptions, int> parse(std::vector<const char*> words) {
    words.insert(words.begin(), "evfleet");
    return evfleet::parseOptions(static_cast<int>(words.size()), words.data());
}

TEST(EvfleetOptions, ArchiversAreTakenInTurn) {
    const auto options = parse({"--to", "127.0.0.1:1", "--to", "[::1]:2"});
    ASSERT_TRUE(std::holds_alternative<FleetOptions>(options));
    const auto& asked = std::get<FleetOptions>(options);
    ASSERT_EQ(asked.archivers.size(), 2U);
    EXPECT_EQ(asked.archivers[0].port(), 1);
    EXPECT_TRUE(asked.archivers[1].address().is_v6());
}

TEST(EvfleetOptions, OneSizeIsBothBounds) {
    const auto options = parse({"--to", "127.0.0.1:1", "--size", "3848"});
    ASSERT_TRUE(std::holds_alternative<FleetOptions>(options));
    EXPECT_EQ(std::get<FleetOptions>(options).shape.smallest, 3848U);
    EXPECT_EQ(std::get<FleetOptions>(options).shape.largest, 3848U);
}

TEST(EvfleetOptions, SizesMustFitAnEventAndEachOther) {
    for (const char* size : {"3849", "5:4", "1:", "x", "1:2:3", ""}) {
        EXPECT_THROW(parse({"--to", "127.0.0.1:1", "--size", size}), std::invalid_argument) << size;
    }
}

TEST(EvfleetOptions, NonsenseIsRefused) {
    const std::vector<std::vector<const char*>> lines = {
        {},
        {"--to", "127.0.0.1:0"},
        {"--to", "nowhere"},
        {"--to", "127.0.0.1:1", "--blades", "0"},
        {"--to", "127.0.0.1:1", "--rate", "-1"},
        {"--to", "127.0.0.1:1", "--rate", "nan"},
        {"--to", "127.0.0.1:1", "--outages", "inf"},
        {"--to", "127.0.0.1:1", "--enclosure", ""},
        {"--to", "127.0.0.1:1", "--check", "/nonexistent/events.db"},
    };
    for (const auto& line : lines) {
        const auto options = parse(line);
        ASSERT_TRUE(std::holds_alternative<int>(options)) << (line.empty() ? "" : line.back());
        EXPECT_EQ(std::get<int>(options), 2);
    }
}

} // namespace
