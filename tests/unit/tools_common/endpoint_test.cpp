#include "common/endpoint.h"

#include "common/names.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>

using namespace tools;

TEST(Endpoint, SocketNamesThatOthersRelyOn) {
    EXPECT_EQ(endpointSocketName(27), "eventlog");
    EXPECT_EQ(endpointSocketName(18), "startup");
    EXPECT_EQ(endpointSocketName(30), "smi_ind");
    EXPECT_EQ(endpointSocketName(28), "snmp");
    EXPECT_EQ(endpointSocketName(0), "iscsi18p");
    EXPECT_EQ(endpointSocketName(33), "es_adapter");
}

TEST(Endpoint, EverySocketNameIsTheEnumeratorWithoutPrefixAndFinalMP) {
    for (U32_t endpoint = 0; endpoint < ENDPOINT_COUNT; ++endpoint) {
        std::string expected = endpointNames.full(endpoint).substr(sizeof("MMSG_E_EPID_") - 1);
        if (expected.ends_with("MP")) {
            expected.resize(expected.size() - 2);
        }
        std::ranges::transform(expected, expected.begin(),
                               [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        EXPECT_EQ(endpointSocketName(endpoint), expected);
    }
}

TEST(Endpoint, NumbersBehindTheLastHaveNoSocket) {
    EXPECT_EQ(endpointSocketName(34), "");
    EXPECT_EQ(endpointSocketName(255), "");
}

TEST(Endpoint, PathIsDirectoryAndName) {
    EXPECT_EQ(endpointSocketPath("/tmp/a", 27), "/tmp/a/eventlog");
}
