#include "evctl/inquiry.h"

#include "mmsg_client.h"
#include "temp_directory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

using evctl::Bytes;
using evctl::InquiryAnswer;
using evctl::LogIdentity;

namespace {

const LogIdentity OTHER = {.enclosure = "ENC", .blade = "BL", .slot = 0x01020304, .instance = 5};

/** Answers one inquiry with these bytes behind the header. */
class InquiryTest : public testing::Test {
  protected:
    InquiryAnswer answered(U32_t returnCode, const Bytes& body) {
        evctl::RequestOptions options;
        options.where.directory = directory_.path();
        evctl::Requester requester(options);
        support::MmsgClient peer = listener_.accept();
        std::jthread answerer([&] {
            U32_t handle = support::headerOf(peer.receive()).handle;
            peer.send(support::makeMmsg(
                {.type = 2, .cont = 0x40, .returnCode = returnCode, .handle = handle}, body));
        });
        return inquire(requester, EMP_E_INQUIRY_TYPE_EXACT, OTHER, 9);
    }

    support::TempDirectory directory_;
    support::MmsgListener listener_{directory_.file("snmp")};
};

} // namespace

TEST(InquiryMessage, HasTheseBytes) {
    Bytes expected(208);
    expected[8] = 14;    // message_type
    expected[9] = 1;     // mmch_version
    expected[11] = 208;  // mmsg_length
    expected[12] = 8;    // protocol
    expected[15] = 2;    // type
    expected[16] = 29;   // requestor
    expected[20] = 0x08; // recipient_loc_bm: bit 27
    expected[67] = 4;    // evInquiryType
    expected[68] = 'E';  // evEnclosureId
    expected[69] = 'N';
    expected[70] = 'C';
    expected[132] = 'B'; // evBladeId
    expected[133] = 'L';
    expected[196] = 1; // evSlotId
    expected[197] = 2;
    expected[198] = 3;
    expected[199] = 4;
    expected[203] = 5;    // evInstanceNumber
    expected[204] = 0xF0; // evSeqIdInquiry
    expected[207] = 1;
    EXPECT_EQ(evctl::makeInquiry(29, EMP_E_INQUIRY_TYPE_PREVIOUS, OTHER, 0xF0000001), expected);
}

TEST(InquiryMessage, TextsOf64BytesFillTheirFields) {
    Bytes message = evctl::makeInquiry(28, EMP_E_INQUIRY_TYPE_FIRST,
                                       {std::string(64, 'e'), std::string(64, 'b'), 0, 0}, 0);
    EXPECT_EQ(std::count(message.begin() + 68, message.begin() + 132, 'e'), 64);
    EXPECT_EQ(std::count(message.begin() + 132, message.begin() + 196, 'b'), 64);
    EXPECT_EQ(message[196], 0);
}

TEST(InquiryMessage, IdentityOfAnEventComesBackAsItWent) {
    EmpEvLogHeader_t header{};
    std::fill_n(header.evEnclosureId, 64, U8_t{'e'});
    header.evBladeId[0] = 'b';
    header.evSlotId = 7;
    header.evInstanceNumber = 8;
    EXPECT_EQ(evctl::identityOf(header), (LogIdentity{std::string(64, 'e'), "b", 7, 8}));
}

TEST_F(InquiryTest, AnswerHoldsTheEvent) {
    Bytes body(155);
    body[139] = 42;
    body[145] = 3;
    body[152] = 'x';
    InquiryAnswer answer = answered(1, body);
    ASSERT_TRUE(answer.found());
    EXPECT_EQ(answer.event().header->evSequenceId, 42U);
    EXPECT_EQ(answer.event().data.size(), 3U);
    EXPECT_EQ(answer.event().data[0], 'x');
}

TEST_F(InquiryTest, AnswerShorterThanItsEventIsAnError) {
    Bytes body(155);
    body[145] = 4;
    EXPECT_THROW(answered(1, body), evctl::SessionError);
}

TEST_F(InquiryTest, AnswerWithoutWholeEventHeaderIsAnError) {
    EXPECT_THROW(answered(2, Bytes(151)), evctl::SessionError);
}

TEST_F(InquiryTest, OtherReturnCodesAreNoEvent) {
    InquiryAnswer answer = answered(3, Bytes(152));
    EXPECT_FALSE(answer.found());
    EXPECT_EQ(answer.returnCode, 3U);
}
