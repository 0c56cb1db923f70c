#include "common/frame.h"

#include "mmsg_client.h"

#include <gtest/gtest.h>

#include <cstring>

using support::Bytes;
using support::headerOf;
using support::makeMmsg;
using tools::FrameReader;

static void feed(FrameReader& reader, const Bytes& bytes) {
    std::span<U8_t> space = reader.space();
    ASSERT_GE(space.size(), bytes.size());
    memcpy(space.data(), bytes.data(), bytes.size());
    reader.commit(bytes.size());
}

static Bytes nextOf(FrameReader& reader) {
    std::span<U8_t> message;
    EXPECT_EQ(reader.next(message), FrameReader::Outcome::Message);
    return {message.begin(), message.end()};
}

static FrameReader::Outcome outcomeOf(FrameReader& reader) {
    std::span<U8_t> message;
    return reader.next(message);
}

TEST(Frame, NothingIsIncomplete) {
    FrameReader reader;
    EXPECT_EQ(outcomeOf(reader), FrameReader::Outcome::Incomplete);
    EXPECT_EQ(reader.pending(), 0U);
}

TEST(Frame, HeaderAloneIsAMessage) {
    FrameReader reader;
    Bytes message = makeMmsg({.type = 5});
    feed(reader, message);
    EXPECT_EQ(nextOf(reader), message);
    EXPECT_EQ(outcomeOf(reader), FrameReader::Outcome::Incomplete);
}

TEST(Frame, ByteByByteGivesTheMessageWithItsLastByte) {
    FrameReader reader;
    Bytes message = makeMmsg({.type = 5}, Bytes(37, 0x5A));
    for (size_t i = 0; i < message.size(); ++i) {
        ASSERT_EQ(outcomeOf(reader), FrameReader::Outcome::Incomplete) << i;
        feed(reader, {message[i]});
    }
    EXPECT_EQ(nextOf(reader), message);
}

TEST(Frame, SeveralMessagesInOnePiece) {
    FrameReader reader;
    Bytes first = makeMmsg({.type = 1}, Bytes(10, 1));
    Bytes second = makeMmsg({.type = 2}, Bytes(4000, 2));
    Bytes both = first;
    both.insert(both.end(), second.begin(), second.end());
    feed(reader, both);
    EXPECT_EQ(nextOf(reader), first);
    EXPECT_EQ(nextOf(reader), second);
}

TEST(Frame, LengthsOutside64To4064AreBad) {
    for (U16_t length : std::initializer_list<U16_t>{0, 1, 63, 4065, 65535}) {
        FrameReader reader;
        Bytes message = makeMmsg({});
        headerOf(message).mmsg_length = length;
        feed(reader, message);
        EXPECT_EQ(outcomeOf(reader), FrameReader::Outcome::BadLength) << length;
        EXPECT_EQ(reader.announcedLength(), length);
    }
}

TEST(Frame, ShortestAndLongestAreGood) {
    for (size_t body : {size_t{0}, size_t{4000}}) {
        FrameReader reader;
        Bytes message = makeMmsg({}, Bytes(body, 7));
        feed(reader, message);
        EXPECT_EQ(nextOf(reader), message);
    }
}

TEST(Frame, BadLengthShowsWithTheHeadersLastByte) {
    FrameReader reader;
    Bytes message = makeMmsg({});
    headerOf(message).mmsg_length = 0;
    feed(reader, Bytes(message.begin(), message.end() - 1));
    EXPECT_EQ(outcomeOf(reader), FrameReader::Outcome::Incomplete);
    EXPECT_EQ(reader.announcedLength(), 0);
    feed(reader, {message.back()});
    EXPECT_EQ(outcomeOf(reader), FrameReader::Outcome::BadLength);
}

TEST(Frame, ThousandMessagesInOddPiecesKeepTheirOrder) {
    Bytes stream;
    for (U32_t i = 0; i < 1000; ++i) {
        Bytes message = makeMmsg({.handle = i}, Bytes(i * 7 % 4001, static_cast<U8_t>(i)));
        stream.insert(stream.end(), message.begin(), message.end());
    }
    FrameReader reader;
    U32_t expected = 0;
    for (size_t at = 0; at < stream.size();) {
        size_t piece = std::min<size_t>({5003, stream.size() - at, reader.space().size()});
        feed(reader, Bytes(stream.begin() + static_cast<std::ptrdiff_t>(at),
                           stream.begin() + static_cast<std::ptrdiff_t>(at + piece)));
        at += piece;
        for (std::span<U8_t> message; reader.next(message) == FrameReader::Outcome::Message;) {
            Bytes bytes(message.begin(), message.end());
            ASSERT_EQ(bytes.size(), 64 + expected * 7 % 4001);
            ASSERT_EQ(headerOf(bytes).handle, expected);
            ++expected;
        }
    }
    EXPECT_EQ(expected, 1000U);
    EXPECT_EQ(reader.pending(), 0U);
}
