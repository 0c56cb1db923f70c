/**
 * Thousands of random appends, with restarts between them, compared with the model after each one.
 */
#include "model_fixture.h"
#include "store/find.h"

#include <algorithm>

namespace {

using logimage::Bytes;
using logimage::Image;
using logimage::Record;

constexpr uint32_t MAX_BODY = 3848;

class RandomLog : public ModelTest, public testing::WithParamInterface<unsigned> {
  protected:
    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(random() % limit); }
    bool oneIn(uint32_t n) { return below(n) == 0; }
    uint32_t bodySize() {
        static constexpr uint32_t USUAL[] = {0, 0, 1, 40, 100, 1000, MAX_BODY, MAX_BODY};
        return oneIn(2) ? USUAL[below(8)] : below(MAX_BODY + 1);
    }

    /** A size that ends exactly at @p limit, or one byte before or behind it, if there is one. */
    uint32_t fitting(uint64_t limit) {
        uint64_t free = limit - model.write - 160 + below(3) - 1;
        return free <= MAX_BODY ? static_cast<uint32_t>(free) : bodySize();
    }
    uint32_t nextSize() {
        switch (below(6)) {
        case 0:
            return fitting(model.start);
        case 1:
            return fitting(END_OF_FILE);
        case 2: // the dummy behind the record has just its room, or none
            return fitting(oneIn(2) ? END_OF_FILE - 160 : END_OF_FILE - below(170));
        default:
            return bodySize();
        }
    }

    uint32_t firstId() {
        static constexpr uint32_t IDS[] = {0, 0, 5000, 9'700, 19'990, 0x7FFFFFF0, 0xFFFFFE00};
        return IDS[below(7)];
    }
    Image unwrappedLog(uint32_t end) {
        Image image;
        uint32_t id = firstId();
        while (image.size() + 2 * (160 + MAX_BODY) < end) {
            image.event(id++, bodySize());
        }
        return image;
    }
    Image startImage() {
        switch (below(6)) {
        case 0:
            return {};
        case 1:
            return unwrappedLog(below(100'000)).dummyToEnd();
        case 2:
            return unwrappedLog(END_OF_FILE).dummyToEnd();
        case 3:
            return unwrappedLog(END_OF_FILE - below(8000));
        default: {
            logimage::Wrapped log =
                logimage::wrapped(1 + below(200), bodySize(), 200 + below(3000), firstId());
            return log.image;
        }
        }
    }

    std::string appendRandom() {
        if (oneIn(25)) {
            // Data that quotes a record of the log.
            Bytes body = encode(Record::event(model.nextId - below(300), below(500)));
            body.insert(body.begin(), below(40), 0xB6);
            return appendBodyBoth(body);
        }
        if (oneIn(60)) {
            return appendBoth(below(100), 27, static_cast<uint16_t>(1 + below(2)));
        }
        return appendBoth(nextSize());
    }

    std::mt19937 random{GetParam()};
};

class RandomAppends : public RandomLog {};

TEST_P(RandomAppends, LeaveTheSameFileAndState) {
    uint32_t stored = 0;
    for (int walk = 0; walk < 6; walk++) {
        debugLines(walk % 2 == 0);
        where = "walk " + std::to_string(walk) + " scan";
        std::string bugCheck = scanBoth(startImage());
        uint32_t restartEvery = 1 + below(40);
        for (int step = 0; step < 60 && !HasFailure(); step++) {
            where = "walk " + std::to_string(walk) + " step " + std::to_string(step);
            if (!bugCheck.empty() || oneIn(restartEvery)) {
                bugCheck = restartBoth();
                if (!bugCheck.empty()) {
                    break; // this file stops every start
                }
            }
            bugCheck = appendRandom();
            stored += bugCheck.empty() ? 1 : 0;
        }
        ASSERT_FALSE(HasFailure());
    }
    EXPECT_GT(stored, 100U);
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomAppends, testing::Range(1U, 7U));

/** Goes round a whole log with restarts, so that the index and the ids turn over. */
class RoundTheLog : public RandomLog {};

TEST_P(RoundTheLog, TwiceWithEventsOfOneKind) {
    debugLines(false);
    ASSERT_EQ(scanBoth(Image()), "");
    for (int step = 0; step < 900 && !HasFailure(); step++) {
        where = "step " + std::to_string(step);
        ASSERT_EQ(appendBoth(oneIn(3) ? bodySize() : MAX_BODY), "");
        if (step % 60 == 0) {
            ASSERT_EQ(restartBoth(), "");
        }
    }
    EXPECT_EQ(empControl.empWrapOver, WRAP_TRUE);
}

INSTANTIATE_TEST_SUITE_P(Seeds, RoundTheLog, testing::Values(100U, 101U));

/** Files after accidents: bytes changed, lost, added, repeated. */
class RandomDamage : public RandomLog {
  protected:
    /** An offset: anywhere, or inside the header that begins at or behind it. */
    size_t place(const Image& image) {
        size_t offset = below(image.size());
        if (oneIn(3)) {
            return offset;
        }
        while (offset + 1 < image.size() &&
               (image.bytes[offset] != 0xB6 || image.bytes[offset + 1] != 0x8F)) {
            offset++;
        }
        return std::min<size_t>(offset + below(160), image.size() - 1);
    }
    void damage(Image& image) {
        size_t at = place(image);
        switch (below(8)) {
        case 0:
            image.truncate(at);
            break;
        case 1:
            image.insert(at, Bytes(1 + below(200), static_cast<uint8_t>(below(256))));
            break;
        case 2:
            image.insert(at, encode(Record::event(below(20), below(300))));
            break;
        case 3: {
            size_t count = std::min<size_t>(1 + below(400), image.size() - at);
            image.bytes.erase(image.bytes.begin() + static_cast<std::ptrdiff_t>(at),
                              image.bytes.begin() + static_cast<std::ptrdiff_t>(at + count));
            break;
        }
        case 4: {
            Bytes part = logimage::slice(image.bytes, place(image), 1 + below(2000));
            part.resize(std::min(part.size(), image.bytes.size() - at));
            std::copy(part.begin(), part.end(),
                      image.bytes.begin() + static_cast<std::ptrdiff_t>(at));
            break;
        }
        default:
            image.flip(at, static_cast<uint8_t>(1 + below(255)));
        }
    }
    /** A small log that ends anyhow; searches in a short file are short. */
    Image smallImage() {
        Image image;
        uint32_t id = below(20);
        uint32_t records = 3 + below(20);
        for (uint32_t i = 0; i < records; i++) {
            image.event(id++, oneIn(4) ? bodySize() : below(60));
            if (oneIn(15)) {
                id = below(40);
            }
        }
        if (oneIn(3)) {
            image.add(Record::dummy(65535)).fill(below(3000), 0);
        }
        return image;
    }
};

TEST_P(RandomDamage, IsJudgedAlike) {
    uint32_t fatal = 0;
    uint32_t started = 0;
    for (int round = 0; round < 60; round++) {
        where = "round " + std::to_string(round);
        debugLines(round % 2 == 0);
        Image image = oneIn(4) ? startImage() : smallImage();
        for (uint32_t i = 1 + below(3); i > 0 && image.size() > 0; i--) {
            damage(image);
        }
        std::string bugCheck = scanBoth(image);
        fatal += bugCheck.empty() ? 0 : 1;
        started += rebuilt ? 1 : 0;
        for (int step = 0; step < 4 && bugCheck.empty(); step++) {
            bugCheck = appendRandom();
        }
        where += " restart";
        restartBoth();
        ASSERT_FALSE(HasFailure()) << where;
    }
    // The damage is of all kinds.
    EXPECT_GT(fatal, 0U);
    EXPECT_GT(started, 0U);
}

TEST_P(RandomDamage, IsSearchedAlike) {
    for (int round = 0; round < 150; round++) {
        where = "round " + std::to_string(round);
        Image image = smallImage();
        for (uint32_t i = 1 + below(12); i > 0 && image.size() > 0; i--) {
            damage(image);
        }
        openImage(image);
        uint32_t from = below(image.size() + 2);
        uint32_t gap = 12'345;
        uint32_t wanted = 12'345;
        EMP_CODE_e result = EMP_E_OK;
        std::string bugCheck = both([&] { result = empFindValidEventEntry(from, &gap); },
                                    [&] { model.find(from, wanted); });
        EXPECT_EQ(gap, wanted) << where;
        if (bugCheck.empty()) {
            EXPECT_EQ(result == EMP_E_OK, wanted != 12'345) << where;
            EXPECT_TRUE(std::equal(eventEntryWorkSpace, eventEntryWorkSpace + 4064,
                                   model.workSpace.begin()))
                << where;
        }
        ASSERT_FALSE(HasFailure()) << where;
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomDamage, testing::Range(1U, 5U));

} // namespace
