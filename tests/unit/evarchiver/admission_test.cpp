#include "admission.h"

#include <gtest/gtest.h>

#include <stdexcept>

using namespace evarchive;
using namespace std::chrono_literals;

namespace {

asio::ip::address at(const char* text) {
    return asio::ip::make_address(text);
}

} // namespace

TEST(NetworkOf, AddressAloneIsThatAddress) {
    EXPECT_TRUE(networkOf("10.1.2.3").contains(at("10.1.2.3")));
    EXPECT_FALSE(networkOf("10.1.2.3").contains(at("10.1.2.4")));
    EXPECT_TRUE(networkOf("fd00::1").contains(at("fd00::1")));
}

TEST(NetworkOf, BitsNeedNotEndWithAByte) {
    EXPECT_TRUE(networkOf("10.1.128.0/17").contains(at("10.1.255.255")));
    EXPECT_FALSE(networkOf("10.1.128.0/17").contains(at("10.1.127.255")));
    EXPECT_TRUE(networkOf("0.0.0.0/0").contains(at("255.255.255.255")));
    EXPECT_FALSE(networkOf("0.0.0.0/0").contains(at("fd00::1")));
}

TEST(NetworkOf, MappedAddressIsTheMappedOne) {
    EXPECT_TRUE(networkOf("10.0.0.0/8").contains(at("::ffff:10.9.8.7")));
}

TEST(Admission, CountsLinksInAllAndOfEachAddress) {
    Admission admission({}, 3, 2);
    EXPECT_EQ(admission.enter(at("10.0.0.1")), std::nullopt);
    EXPECT_EQ(admission.enter(at("10.0.0.1")), std::nullopt);
    EXPECT_EQ(admission.enter(at("10.0.0.1")), "its address has 2 links already");
    EXPECT_EQ(admission.enter(at("10.0.0.2")), std::nullopt);
    EXPECT_EQ(admission.enter(at("10.0.0.3")), "there are 3 links already");
    admission.leave(at("10.0.0.1"));
    EXPECT_EQ(admission.enter(at("10.0.0.1")), std::nullopt);
}

TEST(Admission, AddressOutsideAllNetworksIsNotTaken) {
    Admission admission({"10.0.0.0/8", "192.168.1.1"}, 10, 0);
    EXPECT_EQ(admission.enter(at("10.200.0.1")), std::nullopt);
    EXPECT_EQ(admission.enter(at("192.168.1.1")), std::nullopt);
    EXPECT_EQ(admission.enter(at("192.168.1.2")), "its address is not allowed");
}

TEST(Pace, GivesATenthOfASecondAtOnceAndThenTheRate) {
    const Pace::Clock::time_point start;
    Pace pace(100, start);
    for (int i = 0; i < 10; ++i) {
        EXPECT_TRUE(pace.take(start));
    }
    EXPECT_FALSE(pace.take(start));
    EXPECT_FALSE(pace.take(start + 9ms));
    EXPECT_TRUE(pace.take(start + 11ms));
    EXPECT_FALSE(pace.take(start + 12ms));
}

TEST(Descriptors, MoreThanThereCanBeAreRefused) {
    EXPECT_THROW(reserveDescriptors(2'000'000'000, 10), std::runtime_error);
    EXPECT_EQ(reserveDescriptors(0, 10), 10U);
}
