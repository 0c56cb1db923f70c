#include "evctl/wire/archiver_address.h"

#include "common/text.h"

#include <gtest/gtest.h>

using evctl::Bytes;

TEST(ArchiverAddress, RequestHasTheseBytes) {
    Bytes expected(72);
    expected[8] = 14;    // message_type
    expected[9] = 1;     // mmch_version
    expected[11] = 72;   // mmsg_length
    expected[12] = 8;    // protocol
    expected[15] = 3;    // type
    expected[16] = 28;   // requestor
    expected[20] = 0x08; // recipient_loc_bm: bit 27
    expected[64] = 192;  // evArchiverIpAddress
    expected[66] = 2;
    expected[67] = 7;
    expected[68] = 0x23; // evArchiverTcpPort
    expected[69] = 0x28;
    EXPECT_EQ(evctl::makeSetArchiver(28, evctl::parseArchiver("192.0.2.7:9000")), expected);
}

TEST(ArchiverAddress, OffIsAllZero) {
    Bytes message = evctl::makeSetArchiver(28, evctl::parseArchiver("off"));
    EXPECT_EQ(Bytes(message.begin() + 64, message.end()), Bytes(8));
}

TEST(ArchiverAddress, NamesAreResolved) {
    EXPECT_EQ(tools::hostText(evctl::parseArchiver("localhost:1").host), "127.0.0.1");
}

TEST(ArchiverAddress, NamesOfNobodyAreRefused) {
    EXPECT_THROW(evctl::parseArchiver("no such host:1"), std::runtime_error);
    EXPECT_THROW(evctl::parseArchiver("::1:1"), std::runtime_error);
}
