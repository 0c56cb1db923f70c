#include "evctl/wire/event_message.h"

#include <gtest/gtest.h>

#include <stdexcept>

using evctl::Bytes;
using evctl::EventView;
using evctl::MessageKind;

namespace {

/** A message with these protocol, type and length, every other byte zero. */
Bytes message(U8_t protocol, U8_t type, size_t length, U8_t structLength = 0) {
    Bytes bytes(length);
    bytes[8] = 14;
    bytes[10] = static_cast<U8_t>(length >> 8);
    bytes[11] = static_cast<U8_t>(length);
    bytes[12] = protocol;
    bytes[15] = type;
    if (length > 209) {
        bytes[209] = structLength;
    }
    return bytes;
}

MessageKind kindOf(const Bytes& bytes) {
    EventView event{};
    return evctl::readEventMessage(bytes, &event);
}

} // namespace

TEST(EventMessage, HasTheseBytes) {
    Bytes expected(219);
    expected[8] = 14;     // message_type
    expected[9] = 1;      // mmch_version
    expected[11] = 219;   // mmsg_length
    expected[12] = 8;     // protocol
    expected[15] = 1;     // type
    expected[16] = 18;    // requestor
    expected[20] = 0x08;  // recipient_loc_bm: bit 27
    expected[211] = 3;    // evType
    expected[212] = 13;   // evCategory
    expected[213] = 9;    // evIdVersion
    expected[214] = 0x12; // evId
    expected[215] = 0x34;
    expected[216] = 0xAA;
    expected[217] = 0x00;
    expected[218] = 0xBB;
    EXPECT_EQ(evctl::makeEventMessage(
                  {.source = 18, .type = 3, .category = 13, .idVersion = 9, .id = 0x1234},
                  {0xAA, 0x00, 0xBB}),
              expected);
}

TEST(EventMessage, DataEndsAt3848Bytes) {
    EXPECT_EQ(evctl::makeEventMessage({}, Bytes(3848)).size(), 4064U);
    EXPECT_EQ(evctl::makeEventMessage({}, Bytes(3848))[10], 0x0F);
    EXPECT_EQ(evctl::makeEventMessage({}, Bytes(3848))[11], 0xE0);
    EXPECT_THROW(evctl::makeEventMessage({}, Bytes(3849)), std::runtime_error);
}

TEST(EventMessage, HexDataMayHaveBlanksBetweenPairs) {
    EXPECT_EQ(evctl::parseHexData("00fF 7a\n01"), (Bytes{0x00, 0xFF, 0x7A, 0x01}));
    EXPECT_EQ(evctl::parseHexData(""), Bytes());
    for (const char* text : {"0", "0 0", "00 1", "+1", "xx", "0x"}) {
        EXPECT_THROW(evctl::parseHexData(text), std::runtime_error) << text;
    }
}

TEST(EventMessage, LoggedAndReplayedEventsAreEvents) {
    EXPECT_EQ(kindOf(message(8, 1, 216)), MessageKind::EVENT);
    EXPECT_EQ(kindOf(message(8, 7, 216)), MessageKind::EVENT);
    EXPECT_EQ(kindOf(message(8, 2, 216)), MessageKind::OTHER);
    EXPECT_EQ(kindOf(message(12, 1, 64)), MessageKind::OTHER);
}

TEST(EventMessage, ShortEventsAreBad) {
    EXPECT_EQ(kindOf(message(8, 1, 64)), MessageKind::BAD_EVENT);
    EXPECT_EQ(kindOf(message(8, 1, 215)), MessageKind::BAD_EVENT);
    EXPECT_EQ(kindOf(message(8, 1, 218, 3)), MessageKind::BAD_EVENT);
    EXPECT_EQ(kindOf(message(8, 1, 219, 3)), MessageKind::EVENT);
}

TEST(EventMessage, DataIsWhatItsLengthSays) {
    Bytes bytes = message(8, 1, 220, 2);
    bytes[216] = 'h';
    bytes[217] = 'i';
    bytes[218] = 'x';
    EventView event{};
    ASSERT_EQ(evctl::readEventMessage(bytes, &event), MessageKind::EVENT);
    EXPECT_EQ(std::string(event.data.begin(), event.data.end()), "hi");
}
