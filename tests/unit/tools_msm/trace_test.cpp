#include "msm/trace.h"

#include "mmsg_client.h"

#include <gtest/gtest.h>

using namespace msm;
using support::Bytes;
using support::headerOf;
using support::makeMmsg;

TEST(Trace, HeaderInOneLine) {
    Bytes message = makeMmsg({.protocol = 8,
                              .type = 2,
                              .requestor = 27,
                              .cont = 0x40,
                              .dest = 3,
                              .local = {18, 33},
                              .other = {30},
                              .returnCode = 1,
                              .handle = 0xABCD},
                             Bytes(152));
    EXPECT_EQ(headerText(headerOf(message)),
              "eventmgr inquiry, 216 bytes, from eventlog to startup es_adapter, other blade "
              "smi_ind, cont 0x40, dest 3, return_code 1, handle 0x0000abcd");
}

TEST(Trace, ValuesWithoutNamesAreNumbers) {
    Bytes message = makeMmsg({.protocol = 99, .type = 70000, .requestor = 200, .local = {63}});
    EXPECT_EQ(headerText(headerOf(message)),
              "99 70000, 64 bytes, from 200 to 63, other blade -, cont 0x00, dest 0, "
              "return_code 0, handle 0x00000000");
}

TEST(Trace, EndpointIsBitModulo32OfWordBy32) {
    U32be_t bitmap[2] = {0x80000001U, 0x00000002U};
    EXPECT_EQ(recipientsOf(bitmap), 0x0000000280000001ULL);
    EXPECT_EQ(recipientsText(bitmap), "iscsi18p isnsc es_adapter");
}
