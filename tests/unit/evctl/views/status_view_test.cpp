#include "evctl/views/status_view.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <array>

namespace {

/** A status reply's body, byte by byte. */
constexpr std::array<U8_t, 20> UP = {192, 0, 2, 7, 0x23, 0x28, 0, 1, 0, 0,
                                     1,   0, 0, 0, 0,    2,    0, 0, 0, 3};

EmpGetEvManagerStatusMsg_t statusOf(const std::array<U8_t, 20>& bytes) {
    return *reinterpret_cast<const EmpGetEvManagerStatusMsg_t*>(bytes.data());
}

} // namespace

TEST(StatusView, LinesHaveStateAndCounters) {
    EXPECT_EQ(evctl::statusLines(statusOf(UP)), "archiver             192.0.2.7:9000\n"
                                                "link                 up or being set up\n"
                                                "timed-out inquiries  256\n"
                                                "connections closed   2\n"
                                                "connections tried    3\n");
}

TEST(StatusView, OnlyBit0IsTheLink) {
    std::array<U8_t, 20> bytes = UP;
    bytes[6] = 0xFF;
    bytes[7] = 0xFE;
    EXPECT_NE(evctl::statusLines(statusOf(bytes)).find("link                 down\n"),
              std::string::npos);
}

TEST(StatusView, JsonIsOneObject) {
    EXPECT_EQ(evctl::jsonLine(evctl::statusJson(statusOf(UP))),
              R"({"archiver":"192.0.2.7:9000","link":"up or being set up","linkUp":true,)"
              R"("timedOutInquiries":256,"connectionsClosed":2,"connectionsTried":3})"
              "\n");
}

TEST(StatusView, NoArchiverIsNone) {
    EXPECT_EQ(evctl::statusLines({}).find("archiver             none\nlink                 down\n"),
              0U);
    EXPECT_TRUE(evctl::statusJson({})["archiver"].is_null());
}
