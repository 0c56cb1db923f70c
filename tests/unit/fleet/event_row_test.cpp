/** An event as a row and back; the numbers of logs; what a server takes in binary. */
#include "link_messages.h"
#include "postgres/event_row.h"
#include "postgres/log_number.h"
#include "postgres/pg_arrays.h"

#include <gmock/gmock.h>

#include <random>

using namespace evarchive;
using support::LogName;
using testing::ElementsAre;
using testing::ElementsAreArray;

namespace {

const SeriesKey KEY{{"ENC-A", "BLADE-1", 1}, 1};

void expectSame(const Bytes& image, const SeriesKey& key) {
    EXPECT_THAT(imageOfRow(rowOf(image, key), key), ElementsAreArray(image));
}

Bytes bytesOf(const std::string& text) {
    return {text.begin(), text.end()};
}

} // namespace

TEST(EventRowTest, UsualEventNeedsNoHead) {
    const Bytes image = support::eventBody({.id = 7});
    const EventRow row = rowOf(image, KEY);
    EXPECT_FALSE(row.head);
    EXPECT_EQ(row.sequenceId, 7U);
    EXPECT_EQ(row.time, 1000U);
    EXPECT_EQ(row.source, 27);
    EXPECT_EQ(row.event, 3);
    EXPECT_THAT(row.data, ElementsAre(1, 2, 3));
    expectSame(image, KEY);
}

TEST(EventRowTest, BytesBehindATextsNulAreKept) {
    Bytes image = support::eventBody({});
    image[40] = 'x';
    EXPECT_TRUE(rowOf(image, KEY).head);
    expectSame(image, KEY);
}

TEST(EventRowTest, EventOfAnotherIdentityKeepsItsOwn) {
    const Bytes image = support::eventBody({.log = {.blade = "ANOTHER"}});
    EXPECT_TRUE(rowOf(image, KEY).head);
    expectSame(image, KEY);
}

TEST(EventRowTest, TextsOfFullLengthNeedNoHead) {
    const std::string full(64, 'E');
    const Bytes image = support::eventBody({.log = {.enclosure = full}});
    const SeriesKey key{{full, "BLADE-1", 1}, 1};
    EXPECT_FALSE(rowOf(image, key).head);
    expectSame(image, key);
}

TEST(EventRowTest, LengthThatIsNotTheDatasIsKept) {
    Bytes image = support::eventBody({});
    image[145] = 99;
    expectSame(image, KEY);
}

TEST(EventRowTest, EveryImageComesBackByteForByte) {
    std::mt19937 random(11);
    for (int round = 0; round < 5000; ++round) {
        Bytes image =
            support::eventBody({.id = static_cast<U32_t>(random()),
                                .data = Bytes(random() % 300, static_cast<U8_t>(random()))});
        for (auto changes = random() % 6; changes > 0; --changes) {
            image[random() % image.size()] = static_cast<U8_t>(random());
        }
        ASSERT_EQ(imageOfRow(rowOf(image, KEY), KEY), image) << round;
    }
}

TEST(LogNumberTest, IdentityIsTheKeysBytes) {
    const Bytes identity = identityOf({{"E", "BL", 0x01020304}, 5});
    EXPECT_THAT(identity, ElementsAre(0, 1, 'E', 0, 2, 'B', 'L', 1, 2, 3, 4, 0, 0, 0, 5));
}

TEST(LogNumberTest, IdentityGivesTheKeyBack) {
    const SeriesKey key{{std::string("\xFF\x01", 2), "", 0xFFFFFFFF}, 0};
    EXPECT_EQ(keyOfIdentity(identityOf(key)), key);
}

TEST(LogNumberTest, IdentityThatIsCutIsRefused) {
    Bytes identity = identityOf(KEY);
    identity.pop_back();
    EXPECT_THROW(keyOfIdentity(identity), StoreError);
    identity = identityOf(KEY);
    identity.push_back(0);
    EXPECT_THROW(keyOfIdentity(identity), StoreError);
    EXPECT_THROW(keyOfIdentity({}), StoreError);
}

// printf '\0\5ENC-A\0\7BLADE-1\0\0\0\1\0\0\0\1\0' | sha256sum
TEST(LogNumberTest, NumberIsTheBeginningOfTheDigest) {
    EXPECT_EQ(logNumber(identityOf(KEY)), 0x29C37F8A6D02F1CF);
}

// The digest with salt 1 begins with AA6A 444D 364F EF2D: where a log is must not hang on its salt.
TEST(LogNumberTest, SaltLeavesTheFirstTwoBytesAsTheyAre) {
    EXPECT_EQ(logNumber(identityOf(KEY), 1), 0x29C3444D364FEF2D);
}

TEST(LogNumberTest, EachNumberIsOneServersWhateverTheirCount) {
    for (const U32_t nodes : {1U, 2U, 3U, 7U, MOST_NODES}) {
        EXPECT_EQ(nodeOf(INT64_MIN, nodes), 0U);
        EXPECT_EQ(nodeOf(INT64_MAX, nodes), nodes - 1);
        EXPECT_EQ(firstLogOf(0, nodes), INT64_MIN);
        EXPECT_EQ(firstLogOf(nodes, nodes), std::nullopt);
        for (U32_t node = 1; node < nodes; ++node) {
            const SeriesNumber first = *firstLogOf(node, nodes);
            ASSERT_EQ(nodeOf(first, nodes), node) << nodes;
            ASSERT_EQ(nodeOf(first - 1, nodes), node - 1) << nodes;
        }
    }
}

TEST(LogNumberTest, DigestIsSha256) {
    EXPECT_THAT(digestOf(bytesOf("abc")),
                ElementsAre(0xba, 0x78, 0x16, 0xbf, 0x8f, 0x01, 0xcf, 0xea, 0x41, 0x41, 0x40, 0xde,
                            0x5d, 0xae, 0x22, 0x23, 0xb0, 0x03, 0x61, 0xa3, 0x96, 0x17, 0x7a, 0x9c,
                            0xb4, 0x10, 0xff, 0x61, 0xf2, 0x00, 0x15, 0xad));
}

TEST(PgArrayTest, NumbersAreBigEndianWithTheirLengths) {
    PgArray array(PgType::SMALLINT);
    array.addNumber(1);
    array.addNumber(-2);
    EXPECT_THAT(array.finish(), ElementsAre(0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 21, 0, 0, 0, 2, 0, 0,
                                            0, 1, 0, 0, 0, 2, 0, 1, 0, 0, 0, 2, 0xFF, 0xFE));
}

TEST(PgArrayTest, NullIsALengthOfMinusOneAndIsAnnounced) {
    PgArray array(PgType::BYTEA);
    array.addNull();
    array.addBytes({});
    EXPECT_THAT(array.finish(), ElementsAre(0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 17, 0, 0, 0, 2, 0, 0,
                                            0, 1, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0));
}

TEST(PgArrayTest, ClearedArrayIsEmpty) {
    PgArray array(PgType::BYTEA);
    array.addNull();
    array.clear();
    EXPECT_THAT(array.finish(),
                ElementsAre(0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 17, 0, 0, 0, 0, 0, 0, 0, 1));
}

TEST(PgTimeTest, EveryTimeOfAnEventComesBack) {
    for (const S64_t seconds : {S64_t{0}, S64_t{1}, S64_t{946'684'799}, S64_t{946'684'800},
                                S64_t{1'700'000'000}, S64_t{0xFFFFFFFF}}) {
        EXPECT_EQ(secondsOfPgTime(pgTime(seconds)), seconds);
    }
    EXPECT_EQ(pgTime(946'684'800), 0);
    EXPECT_EQ(secondsOfPgTime(-1), 946'684'799);
}
