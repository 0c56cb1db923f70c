#include "evctl/follow/walk_start.h"
#include "evctl/wire/inquiry.h"

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

struct Answer {
    U32_t returnCode;
    Bytes body;
};

/** Answers inquiries, one after the other, with these bytes behind the header. */
class InquiryTest : public testing::Test {
  protected:
    template <typename Ask>
    auto asked(const std::vector<Answer>& answers, Ask&& ask) {
        evctl::RequestOptions options;
        options.where.directory = directory_.path();
        evctl::Requester requester(options);
        support::MmsgClient peer = listener_.accept();
        std::jthread answerer([&] {
            for (const auto& [returnCode, body] : answers) {
                U32_t handle = support::headerOf(peer.receive()).handle;
                peer.send(support::makeMmsg(
                    {.type = 2, .cont = 0x40, .returnCode = returnCode, .handle = handle}, body));
            }
        });
        return ask(requester);
    }

    InquiryAnswer answered(U32_t returnCode, const Bytes& body) {
        return asked({{returnCode, body}}, [](evctl::Requester& requester) {
            return inquire(requester, EMP_E_INQUIRY_TYPE_EXACT, OTHER, 9);
        });
    }

    support::TempDirectory directory_;
    support::MmsgListener listener_{directory_.file("snmp")};
};

const Answer NOT_THERE = {EMP_E_RESPONSE_FAILURE, Bytes(sizeof(EmpEvLogHeader_t))};

EmpEvLogHeader_t eventOf(U32_t id, U32_t time, U32_t instance = 5) {
    EmpEvLogHeader_t header{};
    header.evInstanceNumber = instance;
    header.evSequenceId = id;
    header.evTime = time;
    return header;
}

Answer holding(const EmpEvLogHeader_t& header) {
    const auto* bytes = reinterpret_cast<const U8_t*>(&header);
    return {EMP_E_RESPONSE_SUCCESS, Bytes(bytes, bytes + sizeof(header))};
}

/** Where a walk begins whose cursor has seen the log as far as event 9, of 1,000 s. */
class WalkStartTest : public InquiryTest {
  protected:
    std::optional<evctl::WalkStart> startOf(const std::vector<Answer>& answers) {
        EmpEvLogHeader_t seen = eventOf(9, 1000);
        sources::Event event;
        event.view.header = &seen;
        evctl::Cursor cursor;
        cursor.moveTo(event);
        return asked(answers, [&cursor](evctl::Requester& requester) {
            return evctl::startBehind(requester, OTHER, cursor);
        });
    }
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

TEST_F(WalkStartTest, IsTheEventOfTheCursor) {
    auto start = startOf({holding(eventOf(20, 2000)), holding(eventOf(9, 1000))});
    ASSERT_TRUE(start.has_value());
    EXPECT_EQ(start->sequenceId, 9U);
    ASSERT_TRUE(start->event.has_value());
    EXPECT_EQ(start->event->event().header->evSequenceId, 9U);
}

TEST_F(WalkStartTest, IsThePlaceOfAnEventThatTheLogHasLostSince) {
    auto start = startOf({holding(eventOf(20, 2000)), NOT_THERE});
    ASSERT_TRUE(start.has_value());
    EXPECT_EQ(start->sequenceId, 9U);
    EXPECT_FALSE(start->event.has_value());
}

TEST_F(WalkStartTest, ALogThatHasBegunAgainAndIsAheadOfTheCursorIsAllNew) {
    EXPECT_FALSE(startOf({holding(eventOf(20, 2000)), holding(eventOf(9, 1500))}).has_value());
}

TEST_F(WalkStartTest, ALogThatHasBegunAgainAndEndsBeforeTheCursorIsAllNew) {
    EXPECT_FALSE(startOf({holding(eventOf(8, 2000)), NOT_THERE}).has_value());
}

TEST_F(WalkStartTest, AnotherInstanceIsAllNew) {
    EXPECT_FALSE(startOf({holding(eventOf(20, 2000, 6))}).has_value());
}

TEST_F(WalkStartTest, AnEmptyLogIsAllNew) {
    EXPECT_FALSE(startOf({NOT_THERE}).has_value());
}
