#include "outage_fixture.h"

#include "../evarchiver/archive_lock.h"

#include <algorithm>
#include <csignal>

namespace {

class Outages : public OutageTest {
  protected:
    // The archiver dies while events come, and more come while it is away.
    void killed() {
        log(150);
        killArchiver();
        log(random(400));
        startArchiver();
    }

    void ended() {
        log(150);
        stopArchiver();
        log(random(400));
        startArchiver();
    }

    // It stops reading until the link is full, then reads on.
    void stalled() {
        stall();
        log(random(4));
        archiver_->signal(SIGCONT);
    }

    // It dies with the link full: a message has been sent in part.
    void killedInMidMessage() {
        stall();
        killArchiver();
        log(random(100));
        startArchiver();
    }

    void refusing() {
        stopArchiver();
        startArchiver({"--test-refuse"});
        log(100);
        bringBack();
        log(random(100));
        stopArchiver();
        startArchiver();
    }

    // It closes in the middle of what it is sent.
    void closing() {
        stopArchiver();
        startArchiver({"--test-close-after", std::to_string(2 + random(60))});
        log(200);
        bringBack();
        log(random(200));
        bringBack();
        log(100);
        stopArchiver();
        startArchiver();
    }
};

// The text that leads to the first difference, not megabytes.
void expectHeld(const EventBodies& archive, const EventBodies& events, const char* which) {
    for (const auto& [id, body] : events) {
        const auto found = archive.find(id);
        ASSERT_NE(found, archive.end()) << which << " " << id << " is missing";
        ASSERT_EQ(found->second, body) << which << " " << id;
    }
}

TEST_F(Outages, TwentyOfThemLoseNoneOfTwentyThousandEvents) {
    startArchiver();
    nameArchiver();
    for (int outage = 0; outage < 20; ++outage) {
        SCOPED_TRACE("outage " + std::to_string(outage));
        switch (outage % 6) {
        case 0:
            killed();
            break;
        case 1:
            stalled();
            break;
        case 2:
            ended();
            break;
        case 3:
            refusing();
            break;
        case 4:
            killedInMidMessage();
            break;
        default:
            closing();
            break;
        }
        bringBack();
        settle();
        const size_t due = 1000 * (static_cast<size_t>(outage) + 1);
        log(due - std::min(due, eventsSoFar()));
        settle();
    }
    stopArchiver();
    killEmp();
    EXPECT_GE(copies_.size(), 20'000U);
    const EventBodies archive = archived();
    const EventBodies log = logged();
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(archive.begin()->first, 0U);
    EXPECT_EQ(archive.rbegin()->first, log.rbegin()->first);
    EXPECT_EQ(archive.size(), archive.rbegin()->first + 1U) << "ids without a hole";
    expectHeld(archive, log, "in the log:");
    expectHeld(archive, copies_, "once logged:");
    RecordProperty("deaths", static_cast<int>(deaths_));
    RecordProperty("stuck", static_cast<int>(stuck_));
}

// What a link holds is a few events more than one burst; what is sent here is a thousand times
// that.
TEST_F(Outages, StoreThatIsAwayIsNotFeltOnTheBlade) {
    startWideArchiver();
    nameArchiver();
    log(1);
    settle();
    support::ArchiveLock lock(database_);
    logLarge(1600);
    EXPECT_FALSE(hasMetAFullLink());
    EXPECT_EQ(deaths_, 0U);
    lock.release();
    settle();
    stopArchiver();
    killEmp();
    expectHeld(archived(), copies_, "once logged:");
}

} // namespace
