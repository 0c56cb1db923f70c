#include "mmsg/reply.h"

#include "link_bench.h"

#include <cstring>

namespace {

Bytes built(U32_t type, unsigned requestor, U32_t handle, EMP_REPLY_TO_e to) {
    Bytes bytes(64, 0xA5);
    empBuildReplyMmch(reinterpret_cast<MMCH_t*>(bytes.data()), type, static_cast<U8_t>(requestor),
                      handle, to);
    return bytes;
}

TEST(ReplyMmch, IsTheseBytes) {
    EXPECT_EQ(built(2, 29, 0xFFEEDDCC, EMP_E_REPLY_TO_LOCAL_BLADE),
              (Bytes{0,    0,    0,    0,    0,    0, 0, 0, //
                     14,   1,    0,    0,    8,    0, 0, 2, //
                     27,   0x40, 29,   0,    0x20, 0, 0, 0, //
                     0,    0,    0,    0,    0,    0, 0, 0, //
                     0,    0,    0,    0,    0,    0, 0, 0, //
                     0xFF, 0xEE, 0xDD, 0xCC, 0,    0, 0, 0, //
                     0,    0,    0,    0,    0,    0, 0, 0, //
                     0,    0,    0,    0,    0,    0, 0, 0}));
}

TEST(ReplyMmch, RequestorOfTheOtherBladeIsInTheOtherBitmap) {
    EXPECT_EQ(built(2, 29, 7, EMP_E_REPLY_TO_OTHER_BLADE),
              replyHeader(2, 0, 0, 29, 7, 2, 0x20000000));
}

TEST(ReplyMmch, RequestorsFrom32OnAreInTheSecondWord) {
    EXPECT_EQ(built(3, 31, 7, EMP_E_REPLY_TO_LOCAL_BLADE),
              replyHeader(3, 0, 0, 31, 7, 0, 0x80000000));
    EXPECT_EQ(built(3, 32, 7, EMP_E_REPLY_TO_LOCAL_BLADE), replyHeader(3, 0, 0, 32, 7, 1, 1));
    EXPECT_EQ(built(3, 63, 7, EMP_E_REPLY_TO_OTHER_BLADE),
              replyHeader(3, 0, 0, 63, 7, 3, 0x80000000));
}

TEST(ReplyMmch, RequestorsFrom64OnAreInNoBitmap) {
    for (unsigned requestor : {64U, 65U, 96U, 128U, 255U}) {
        for (EMP_REPLY_TO_e to : {EMP_E_REPLY_TO_LOCAL_BLADE, EMP_E_REPLY_TO_OTHER_BLADE}) {
            EXPECT_EQ(built(5, requestor, 7, to), replyHeader(5, 0, 0, requestor, 7, -1));
        }
    }
}

TEST(ReplyTo, OnlyTheTopBitOfMmsgContTells) {
    EXPECT_EQ(empReplyTo(0x80), EMP_E_REPLY_TO_OTHER_BLADE);
    EXPECT_EQ(empReplyTo(0xFF), EMP_E_REPLY_TO_OTHER_BLADE);
    EXPECT_EQ(empReplyTo(0x7F), EMP_E_REPLY_TO_LOCAL_BLADE);
    EXPECT_EQ(empReplyTo(0), EMP_E_REPLY_TO_LOCAL_BLADE);
}

TEST(CountEventReply, EverythingButSuccessCountsAsFailure) {
    MMCH_t mmch = {};
    for (U32_t code : {1U, 2U, 3U, 0U, 0x100U}) {
        mmch.return_code = code;
        empCountEventReply(&mmch);
    }
    EXPECT_EQ(empControl.mmsgEventResponseMsgSendSuccess, 1U);
    EXPECT_EQ(empControl.mmsgEventResponseMsgSendFail, 4U);
    EXPECT_EQ(empControl.mmsgEventResponseMsgSendResourceNotAvailable, 0U);
}

} // namespace
