/** Files made to hurt a reader: the work stays linear, nothing outside the bytes is touched. */
#include "log_image.h"

#include <gtest/gtest.h>

#include <ctime>
#include <random>

using test::RING;
using test::walk;
using test::Walked;

namespace {

double processorSeconds() {
    return static_cast<double>(clock()) / CLOCKS_PER_SEC;
}

/** A plausible header every @p step bytes, each with a body of @p length bytes and no valid sum. */
std::string plausibleEverywhere(size_t step, uint32_t length) {
    std::string bytes(RING, '\0');
    for (size_t at = 0; at + step <= RING; at += step) {
        bytes.replace(at, 3, std::string("\xB6\x8F\x01", 3));
        if (at + 160 <= RING) {
            // evStructLength, evSource 27 and evId 5 of the header that began 152 bytes before
            bytes.replace(at + 8, 2, test::bigEndian(length, 2));
            bytes[at + 10] = 27;
        }
    }
    return bytes;
}

} // namespace

TEST(Hostile, OverlappingLongBodiesAreSummedInBoundedTime) {
    // 152 is a multiple of 8 and of the step less 8: every header reads the fields of a later one.
    std::string bytes = plausibleEverywhere(16, 60'000);
    double before = processorSeconds();
    Walked walked = walk(bytes);
    double taken = processorSeconds() - before;
    EXPECT_TRUE(walked.records.empty());
    // Summing 60,000 bytes for 100,000 headers takes many seconds on any machine.
    EXPECT_LT(taken, 5.0);
}

TEST(Hostile, SignaturesEverywhereYieldNothing) {
    std::string bytes;
    while (bytes.size() < RING) {
        bytes += "\xB6\x8F";
    }
    EXPECT_TRUE(walk(bytes).records.empty());
}

TEST(Hostile, EveryTruncationOfALogIsRead) {
    test::LogImage log;
    log.firstEntry();
    log.event(1, 0);
    log.event(2, 30);
    log.dummy();
    for (size_t size = 0; size <= log.bytes.size(); size++) {
        Walked walked = walk(log.bytes.substr(0, size));
        size_t whole = size >= 550 ? 3U : size >= 360 ? 2U : size >= 200 ? 1U : 0U;
        EXPECT_EQ(walked.records.size(), whole) << size;
        EXPECT_EQ(walked.dummies.size(), size >= 710 ? 1U : 0U) << size;
        EXPECT_FALSE(walked.findings.empty()) << size;
    }
}

TEST(Hostile, RandomDamageNeverHidesFromTheFindings) {
    std::minstd_rand random(20061121);
    for (int round = 0; round < 40; round++) {
        test::LogImage log;
        log.firstEntry();
        log.events(1, 20);
        log.dummy();
        size_t used = log.bytes.size();
        log.zerosTo();
        size_t at = random() % used;
        log.damage(at);
        bool reservedByte = at % 200 == 3;
        bool versionStillRead = at % 200 == 2 && static_cast<uint8_t>(log.bytes[at]) <= 1;
        EXPECT_EQ(walk(log.bytes).findings.empty(), reservedByte || versionStillRead) << at;
    }
}
