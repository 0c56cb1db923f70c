#include "msm/counters.h"

#include <gtest/gtest.h>

TEST(Counters, OnlyEndpointsWithTrafficAreListed) {
    msm::Counters counters;
    counters.connections = 2;
    counters.messages = 3;
    counters.nobody = 1;
    counters.linkDropped = 4;
    counters.held = 7;
    counters.heldTooLong = 8;
    counters.secondManagers = 9;
    counters.endpoints[27].delivered = 5;
    counters.endpoints[30].unconnected = 6;
    EXPECT_EQ(counters.text(),
              "summary: connections 2, messages 3, reached nobody 1, unknown recipients 0, "
              "bad lengths 0, broken messages 0\n"
              "other blade: received 0, sent 0, dropped 4\n"
              "event manager: senders held 7, closed after waiting 8, second ones refused 9\n"
              "eventlog: received 0, delivered 5, dropped 0, unconnected 0\n"
              "smi_ind: received 0, delivered 0, dropped 0, unconnected 6\n");
}
