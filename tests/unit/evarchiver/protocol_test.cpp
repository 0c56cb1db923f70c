#include "protocol.h"

#include "link_messages.h"

#include <gtest/gtest.h>

using namespace evarchive;
using support::eventMessage;
using support::inquiryMessage;
using support::statusRequest;

namespace {

// An event message with one byte of data, byte for byte.
Bytes literalEvent() {
    Bytes bytes = {0x00, 0x01, 0x00, 0x99, 0x00, 0x01, 0x00, 0x01,  // version, 153, log, request
                   0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00}; // return code, handle
    bytes.resize(16 + 152 + 1);
    bytes[16] = 'E';
    bytes[80] = 'B';
    bytes[147] = 7;    // slot
    bytes[151] = 2;    // instance
    bytes[155] = 9;    // sequence id
    bytes[161] = 1;    // evStructLength
    bytes[162] = 0x22; // source 34
    bytes[16 + 152] = 0xAB;
    return bytes;
}

Judgement judgeWith(Bytes bytes, size_t offset, U8_t value) {
    bytes.at(offset) = value;
    return judgeBorder(bytes);
}

} // namespace

TEST(Border, EventOfLiteralBytesIsWhole) {
    const Judgement judgement = judgeBorder(literalEvent());
    EXPECT_EQ(judgement.border, Border::WHOLE);
    EXPECT_EQ(judgement.size, 169U);
    EXPECT_EQ(typeOf(literalEvent()), 1);
    EXPECT_EQ(bodyOf(literalEvent()).size(), 153U);
    EXPECT_EQ(bodyOf(literalEvent()).back(), 0xAB);
}

TEST(Border, EveryBeginningOfARequestAsksForMore) {
    for (const Bytes& request : {literalEvent(), inquiryMessage(support::NEXT, {}, 5, 77),
                                 statusRequest({}, 3, {1, 2, 3}, 1000)}) {
        for (size_t length = 0; length < request.size(); ++length) {
            EXPECT_EQ(judgeBorder(View(request).first(length)).border, Border::MORE) << length;
        }
        EXPECT_EQ(judgeBorder(request).border, Border::WHOLE);
    }
}

TEST(Border, StatusRequestHasFourBytesThatItsHeaderDoesNotAnnounce) {
    Bytes request = statusRequest({}, 3, {1, 2, 3}, 1000);
    ASSERT_EQ(request.size(), 196U);
    ASSERT_EQ(support::get16(request, 2), 176U);
    EXPECT_EQ(judgeBorder(View(request).first(195)).border, Border::MORE);
    EXPECT_EQ(judgeBorder(request).size, 196U);
    EXPECT_EQ(bodyOf(request).size(), 176U);
    // Their value means nothing.
    request[192] = request[195] = 0xFF;
    EXPECT_EQ(judgeBorder(request).border, Border::WHOLE);
}

TEST(Border, TwoRequestsAreTakenOneAfterTheOther) {
    using support::operator+;
    const Bytes both = literalEvent() + statusRequest({}, 0, {}, 1);
    EXPECT_EQ(judgeBorder(both).size, 169U);
    EXPECT_EQ(judgeBorder(View(both).subspan(169)).size, 196U);
}

TEST(Border, EachWrongFieldOfAHeaderIsALostBorder) {
    EXPECT_EQ(judgeWith(literalEvent(), 0, 1).border, Border::LOST);    // version 257
    EXPECT_EQ(judgeWith(literalEvent(), 1, 2).border, Border::LOST);    // version 2
    EXPECT_EQ(judgeWith(literalEvent(), 1, 0).border, Border::LOST);    // version 0
    EXPECT_EQ(judgeWith(literalEvent(), 3, 151).border, Border::LOST);  // shorter than a header
    EXPECT_EQ(judgeWith(literalEvent(), 2, 0x10).border, Border::LOST); // 4249
    EXPECT_EQ(judgeWith(literalEvent(), 4, 1).border, Border::LOST);    // type 257
    EXPECT_EQ(judgeWith(literalEvent(), 5, 3).border, Border::LOST);    // set archiver
    EXPECT_EQ(judgeWith(literalEvent(), 5, 7).border, Border::LOST);    // alternate log
    EXPECT_EQ(judgeWith(literalEvent(), 7, 2).border, Border::LOST);    // response
    EXPECT_EQ(judgeWith(literalEvent(), 6, 1).border, Border::LOST);    // flag 257
}

TEST(Border, ReturnCodeAndHandleAreNotJudged) {
    EXPECT_EQ(judgeWith(literalEvent(), 11, 9).border, Border::WHOLE);
    EXPECT_EQ(judgeWith(literalEvent(), 15, 9).border, Border::WHOLE);
}

TEST(Border, BodyLengthMustBeThatOfTheType) {
    Bytes inquiry = inquiryMessage(support::FIRST, {}, 0, 1);
    EXPECT_EQ(judgeWith(inquiry, 3, 143).border, Border::LOST);
    EXPECT_EQ(judgeWith(inquiry, 3, 145).border, Border::LOST);
    Bytes status = statusRequest({}, 0, {}, 1);
    EXPECT_EQ(judgeWith(status, 3, 175).border, Border::LOST);
    EXPECT_EQ(judgeWith(status, 3, 180).border, Border::LOST);
}

TEST(Border, LargestEventPassesAndOneByteMoreDoesNot) {
    const Bytes largest = eventMessage({.data = Bytes(3848, 0x5A)});
    ASSERT_EQ(largest.size(), 4016U);
    EXPECT_EQ(judgeBorder(largest).size, 4016U);
    EXPECT_EQ(judgeBorder(eventMessage({.data = Bytes(3849, 0x5A)})).border, Border::LOST);
}

TEST(Border, EventWithoutDataPasses) {
    EXPECT_EQ(judgeBorder(eventMessage({.data = {}})).size, 168U);
}

TEST(Border, EventMustHaveTheLengthThatItsOwnHeaderSays) {
    EXPECT_EQ(judgeWith(literalEvent(), 161, 0).border, Border::LOST);
    EXPECT_EQ(judgeWith(literalEvent(), 161, 2).border, Border::LOST);
    EXPECT_EQ(judgeWith(literalEvent(), 160, 1).border, Border::LOST);
}

TEST(Border, EventOfSource34PassesAnd35DoesNot) {
    EXPECT_EQ(judgeWith(literalEvent(), 162, 34).border, Border::WHOLE);
    EXPECT_EQ(judgeWith(literalEvent(), 162, 35).border, Border::LOST);
}

TEST(Border, InquiryTypesAreOneToFive) {
    for (U32_t type = 1; type <= 5; ++type) {
        EXPECT_EQ(judgeBorder(inquiryMessage(type, {}, 0, 1)).border, Border::WHOLE);
    }
    EXPECT_EQ(judgeBorder(inquiryMessage(0, {}, 0, 1)).border, Border::LOST);
    EXPECT_EQ(judgeBorder(inquiryMessage(6, {}, 0, 1)).border, Border::LOST);
    EXPECT_EQ(judgeBorder(inquiryMessage(0x01000001, {}, 0, 1)).border, Border::LOST);
}

TEST(Response, EventAnswerIsHeaderAndEvent) {
    const Bytes event = {0xAA, 0xBB, 0xCC};
    const Bytes expected = {
        0,    1,    0,   3, 0,    1,    0,    2,    // version, length, log, response
        0,    0,    0,   1, 0x12, 0x34, 0x56, 0x78, // success, handle
        0xAA, 0xBB, 0xCC};
    EXPECT_EQ(makeEventAnswer(0x12345678, event), expected);
}

TEST(Response, NothingFoundEchoesIdentityAndIdAndCarriesNoData) {
    const support::LogName log{"ENC", "BLD", 0x01020304, 0x05060708};
    const Bytes body = support::inquiryBody(support::EXACT, log, 0x0A0B0C0D);
    const Bytes answer =
        makeEmptyAnswer(0xFFFFFFFF, imageOf<EmpEvInquiryMsg_t>(body), EMP_E_RESPONSE_FAILURE);
    Bytes expected = {0, 1, 0, 152, 0, 1, 0, 2, 0, 0, 0, 2, 0xFF, 0xFF, 0xFF, 0xFF};
    support::putLog(expected, log);
    support::put32(expected, 0x0A0B0C0D);
    expected.resize(168); // time, length, source and the rest: zero
    EXPECT_EQ(answer, expected);
}

TEST(Response, StatusAnswerEchoesTheRequestAndCarriesIdAndFlag) {
    const Bytes body = support::statusBody({}, 7, {9, 8, 7});
    const Bytes answer =
        makeStatusAnswer(1000, imageOf<EmpGetEvArchiverStatusMsg_t>(body), 0x01020304, 3);
    Bytes expected = {0, 1, 0, 176, 0, 6, 0, 2, 0, 0, 0, 1, 0, 0, 3, 0xE8};
    expected.insert(expected.end(), body.begin(), body.end() - 8);
    expected.insert(expected.end(), {1, 2, 3, 4, 0, 0, 0, 3});
    EXPECT_EQ(answer, expected);
    EXPECT_EQ(answer.size(), 192U);
}

TEST(Text, FieldOfSixtyFourBytesNeedsNoNul) {
    U8_t field[64];
    std::fill(std::begin(field), std::end(field), U8_t{'x'});
    EXPECT_EQ(textOf(field), std::string(64, 'x'));
    field[3] = 0;
    EXPECT_EQ(textOf(field), "xxx");
    field[0] = 0;
    EXPECT_EQ(textOf(field), "");
}
