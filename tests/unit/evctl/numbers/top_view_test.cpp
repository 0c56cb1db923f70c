#include "evctl/numbers/top_view.h"

#include "../../evlog/log_image.h"

#include <gmock/gmock.h>

using evctl::topLines;
using evctl::TopView;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr uint32_t PICTURE_TIME = 1'164'117'600; // 2006-11-21T14:00:00Z

/** A log of events with 40 bytes of data, each so long before now. */
class TopPicture : public testing::Test {
  protected:
    void add(uint8_t source, int64_t before) {
        log_.raw(test::record(
            {.id = id_++, .time = static_cast<uint32_t>(PICTURE_TIME - before), .source = source},
            std::string(40, 'e')));
    }
    std::vector<std::string> lines(const TopView& more = {}) {
        if (!isClosed_) {
            log_.dummy();
            log_.zerosTo();
            isClosed_ = true;
        }
        image_ = test::imageOf(log_.bytes);
        TopView view = more;
        view.place = "log";
        view.now = PICTURE_TIME;
        return topLines(evctl::readLog(image_), view);
    }

    test::LogImage log_;
    uint32_t id_ = 1;
    EvlogImage_t image_;
    bool isClosed_ = false;
};

} // namespace

TEST_F(TopPicture, RatesAreTheEventsOfTheLastStretchesOfTime) {
    for (int64_t before : {3600, 3599, 60, 59, 10, 9, 0}) {
        add(18, before);
    }
    add(20, 30);
    std::vector<std::string> all = lines();
    ASSERT_EQ(all.size(), 9U);
    EXPECT_EQ(all[0], "2006-11-21T14:00:00Z  BLADE-A, slot 2, newest event 8  log");
    EXPECT_EQ(all[1], "ring  [#---------------------------------------] 0%, 8 events, unwrapped");
    EXPECT_EQ(all[2], "rate  2 in 10 s, 5 in a minute, 7 in an hour; the ring holds 47.6 d at this "
                      "rate");
    EXPECT_EQ(all[6], "source            10 s minute   hour  events  share  last");
    EXPECT_EQ(all[7], "startup              2      4      6       7  87.5%  0 s        "
                      "#################");
    EXPECT_EQ(all[8], "volmgr               0      1      1       1  12.5%  30 s       ##");
}

TEST_F(TopPicture, OfSourcesOfTheSameRatesTheOneWithMoreEventsComesFirst) {
    add(18, 5);
    add(20, 5);
    for (int count = 0; count < 3; count++) {
        add(20, 7200);
    }
    std::vector<std::string> all = lines();
    ASSERT_EQ(all.size(), 9U);
    EXPECT_THAT(all[7], StartsWith("volmgr "));
    EXPECT_THAT(all[8], StartsWith("startup "));
}

TEST_F(TopPicture, EventsOfTheFutureAreOfNoStretch) {
    add(18, -5);
    std::vector<std::string> all = lines();
    EXPECT_EQ(all[2], "rate  0 in 10 s, 0 in a minute, 0 in an hour");
    EXPECT_THAT(all[7], HasSubstr("in 5 s"));
}

TEST_F(TopPicture, WhatARingMayLackIsMarked) {
    for (uint32_t id = 0; id < 4000; id++) { // newest above, oldest below
        id_ = id < 3000 ? 10'000 + id : 6000 + id;
        add(18, id < 3000 ? 0 : 50);
    }
    while (log_.bytes.size() + 200 <= test::RING) {
        add(18, 50);
    }
    std::vector<std::string> all = lines();
    EXPECT_THAT(all[1], HasSubstr(" 100%, 8000 events, wrapped"));
    EXPECT_THAT(all[2], StartsWith("rate  3000 in 10 s, 8000+ in a minute, 8000+ in an hour; the "
                                   "ring holds 50 s "));
}

TEST_F(TopPicture, TheLinkAndTheLagAreShownOrWhyNot) {
    add(18, 5);
    add(18, 5);
    TopView view;
    view.whyNoStatus = "nobody there";
    view.whyNoneKept = "none";
    EXPECT_EQ(lines(view)[3], "link  unknown: nobody there");
    EXPECT_EQ(lines(view)[4], "lag   unknown: none");
    EmpGetEvManagerStatusMsg_t status{};
    status.evManagerStatusFlag = 1;
    status.evArchiverConnectionAttempt = 3;
    view.status = status;
    view.kept = 1;
    EXPECT_EQ(lines(view)[3], "link  no archiver, up or being set up; inquiries timed out 0, "
                              "connections closed 0, tried 3");
    EXPECT_EQ(lines(view)[4], "lag   1 events: the archive has them up to id 1, the log up to 2");
    view.kept = 9; // taken in since the file was read
    EXPECT_THAT(lines(view)[4], StartsWith("lag   0 events"));
}

TEST_F(TopPicture, AnEmptyLogHasNoSources) {
    std::vector<std::string> all = lines();
    ASSERT_EQ(all.size(), 7U);
    EXPECT_EQ(all[0], "2006-11-21T14:00:00Z  no event  log");
    EXPECT_THAT(all[1], HasSubstr("[----------------------------------------] 0%, 0 events"));
}

TEST_F(TopPicture, DamageIsSaid) {
    add(18, 5);
    add(18, 5);
    log_.damage(100);
    EXPECT_THAT(lines()[1], EndsWith(", damaged"));
}
