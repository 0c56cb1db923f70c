// Three lanes over one file under the thread sanitizer, as the server's loop drives them: events,
// status requests and inquiries of blades, links that end, another program that takes the archive's
// lock for moments, and an end in the middle of it. Ends with status 0 when all that was promised
// is kept; a report of the sanitizer has a status of its own.
#include "lanes.h"

#include "link_messages.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sqlite3.h>

using namespace evarchive;

namespace {

constexpr U32_t LANES = 3;
constexpr U32_t BLADES = 8;
constexpr U32_t EVENTS = 1500; // of each blade

/** What the lanes say, from their threads. */
struct Heard {
    std::mutex mutex;
    U64_t lines = 0;
    U64_t inquiries = 0;
    std::vector<U32_t> claimed = std::vector<U32_t>(BLADES);
    std::string failure;

    void take(const std::vector<Reply>& replies) {
        const std::lock_guard lock(mutex);
        for (const Reply& reply : replies) {
            inquiries += reply.kind == Reply::Kind::INQUIRY ? 1 : 0;
            if (reply.kind == Reply::Kind::STATUS) {
                claimed.at(reply.link) = reply.verdict.sequenceIdLast;
            }
        }
    }
};

support::LogName logOf(U32_t blade) {
    return {.blade = "B" + std::to_string(blade), .slot = blade};
}

BladeKey keyOf(U32_t blade) {
    return {"ENC-A", "B" + std::to_string(blade), blade};
}

void addRound(Lanes& lanes, U32_t id) {
    for (U32_t blade = 0; blade < BLADES; ++blade) {
        const support::LogName log = logOf(blade);
        lanes.add(blade, keyOf(blade), Batch::Kind::EVENT,
                  support::eventBody({.log = log, .id = id}), 0);
        if (id % 100 == blade) {
            lanes.add(blade, keyOf(blade), Batch::Kind::STATUS,
                      support::statusBody(log, 0, {1, 2, 3}), 1);
            lanes.add(blade, {}, Batch::Kind::INQUIRY,
                      support::inquiryBody(support::LAST, logOf(blade + 1), 0), 2);
        }
    }
}

// Another program has the archive's lock for a moment.
void getInTheWay(sqlite3* other) {
    if (sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) == SQLITE_OK) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        sqlite3_exec(other, "ROLLBACK", nullptr, nullptr, nullptr);
    }
}

bool isKept(Lanes& lanes, const Heard& heard) {
    const ArchiveCounts counts = lanes.state().counts;
    bool isGood = heard.failure.empty() && heard.inquiries > 0;
    isGood = isGood && counts.stored == U64_t{BLADES} * EVENTS && lanes.countGaps() == 0;
    for (const U32_t last : heard.claimed) {
        isGood = isGood && last > 0;
    }
    return isGood;
}

bool run(const std::string& path) {
    Heard heard;
    const Lane::Callbacks callbacks{
        [&heard](const std::vector<Reply>& replies) { heard.take(replies); },
        [&heard](Level, const std::string&) {
            const std::lock_guard lock(heard.mutex);
            ++heard.lines;
        },
        [&heard](const std::string& why) {
            const std::lock_guard lock(heard.mutex);
            heard.failure = why;
        }};
    LaneSettings settings;
    settings.batch = 64;
    settings.retention.keepDays = 1;
    Lanes lanes(engineOf(path), settings, LANES, callbacks);
    sqlite3* other = nullptr;
    sqlite3_open(path.c_str(), &other);
    for (U32_t id = 0; id < EVENTS; ++id) {
        addRound(lanes, id);
        if (id % 10 == 0) {
            lanes.handOver();
            lanes.state();
            lanes.spooled();
        }
        if (id % 50 == 0) {
            getInTheWay(other);
        }
    }
    for (U32_t blade = 0; blade < BLADES; ++blade) {
        lanes.add(blade, keyOf(blade), Batch::Kind::END_OF_LINK, {}, 0);
    }
    lanes.handOver();
    const bool isSafe = lanes.stop(std::chrono::seconds(30));
    sqlite3_close(other);
    return isSafe && isKept(lanes, heard);
}

} // namespace

int main() {
    char directory[] = "/tmp/raceXXXXXX";
    if (mkdtemp(directory) == nullptr) {
        return 2;
    }
    const bool isGood = run(std::string(directory) + "/events.db");
    std::filesystem::remove_all(directory);
    puts(isGood ? "all is kept" : "something is missing");
    return isGood ? 0 : 1;
}
