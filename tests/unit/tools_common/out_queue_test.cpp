#include "common/out_queue.h"

#include "mmsg_client.h"

#include <gtest/gtest.h>

using support::Bytes;
using support::makeMmsg;
using tools::OutQueue;

static Bytes messageOf(U32_t handle, size_t body) {
    return makeMmsg({.handle = handle}, Bytes(body, static_cast<U8_t>(handle)));
}

static Bytes pieceOf(const OutQueue& queue) {
    std::span<const U8_t> piece = queue.piece();
    return {piece.begin(), piece.end()};
}

static Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

TEST(OutQueue, MessagesThatFitGoOutTogether) {
    OutQueue queue;
    queue.push(messageOf(1, 10));
    queue.push(messageOf(2, 0));
    EXPECT_EQ(queue.count(), 2U);
    EXPECT_EQ(pieceOf(queue), messageOf(1, 10) + messageOf(2, 0));
}

TEST(OutQueue, ThreeOfTheLargestAreOnePieceAndTheFourthIsNot) {
    OutQueue queue;
    for (U32_t i = 0; i < 4; ++i) {
        queue.push(messageOf(i, 4000));
    }
    EXPECT_EQ(pieceOf(queue), messageOf(0, 4000) + messageOf(1, 4000) + messageOf(2, 4000));
    queue.sent(pieceOf(queue).size());
    EXPECT_EQ(pieceOf(queue), messageOf(3, 4000));
    queue.sent(4064);
    EXPECT_TRUE(queue.empty());
}

TEST(OutQueue, WhatIsLeftOfAMessageComesFirst) {
    OutQueue queue;
    queue.push(messageOf(1, 100));
    queue.push(messageOf(2, 0));
    queue.sent(163);
    EXPECT_EQ(queue.count(), 2U);
    EXPECT_EQ(pieceOf(queue), Bytes{1} + messageOf(2, 0));
    queue.sent(1);
    EXPECT_EQ(queue.count(), 1U);
    EXPECT_EQ(pieceOf(queue), messageOf(2, 0));
}

TEST(OutQueue, AppendedQueueBeginsWithItsFirstMessageWhole) {
    OutQueue old;
    old.push(messageOf(1, 0));
    old.push(messageOf(2, 100));
    old.sent(64 + 30);
    OutQueue queue;
    queue.append(old);
    EXPECT_TRUE(old.empty());
    EXPECT_EQ(queue.count(), 1U);
    EXPECT_EQ(pieceOf(queue), messageOf(2, 100));
}

TEST(OutQueue, EmptyQueueAppendsNothing) {
    OutQueue empty;
    OutQueue queue;
    queue.push(messageOf(1, 0));
    queue.append(empty);
    EXPECT_EQ(pieceOf(queue), messageOf(1, 0));
}

TEST(OutQueue, LongTrafficKeepsEveryByteInOrder) {
    OutQueue queue;
    Bytes in;
    Bytes out;
    for (U32_t i = 0; i < 3000; ++i) {
        Bytes message = messageOf(i, i * 37 % 1000);
        queue.push(message);
        in = std::move(in) + message;
        // Takes less than it gives for a while, then more: the queue grows and shrinks.
        Bytes piece = pieceOf(queue);
        piece.resize(std::min<size_t>(piece.size(), i < 1500 ? 300 : 900));
        queue.sent(piece.size());
        out = std::move(out) + piece;
    }
    while (!queue.empty()) {
        Bytes piece = pieceOf(queue);
        queue.sent(piece.size());
        out = std::move(out) + piece;
    }
    EXPECT_EQ(out, in);
}
