/**
 * @file
 * A lane, and what it says and answers.
 */
#ifndef LANE_FIXTURE_H
#define LANE_FIXTURE_H

#include "lane.h"

#include "link_messages.h"
#include "memory_store.h"
#include "wait.h"

#include <gmock/gmock.h>

namespace evarchive {

using namespace support;

class LaneFixture : public testing::Test {
  protected:
    void start(std::unique_ptr<Store> store, const LaneSettings& settings) {
        lane_ = std::make_unique<Lane>(
            std::move(store), settings,
            Lane::Callbacks{[this](const std::vector<Reply>& replies) {
                                const std::lock_guard lock(mutex_);
                                replies_.insert(replies_.end(), replies.begin(), replies.end());
                            },
                            [this](Level, const std::string& line) {
                                const std::lock_guard lock(mutex_);
                                said_ += line + "\n";
                            },
                            [this](const std::string& why) {
                                const std::lock_guard lock(mutex_);
                                failed_ = why;
                            }});
    }

    void addEvents(U32_t first, U32_t last) {
        for (U32_t id = first; id <= last; ++id) {
            batch_.add(1, Batch::Kind::EVENT, eventBody({.id = id}));
        }
    }
    void addStatus() { batch_.add(1, Batch::Kind::STATUS, statusBody({}, 0, {1, 2, 3})); }
    void submit() { lane_->submit(batch_); }

    std::vector<Reply> waitForReplies(size_t count) {
        requireSoon(
            [&] {
                const std::lock_guard lock(mutex_);
                return replies_.size() >= count;
            },
            "replies");
        const std::lock_guard lock(mutex_);
        return replies_;
    }

    Batch batch_;
    std::mutex mutex_;
    std::vector<Reply> replies_;
    std::string said_;
    std::string failed_;
    std::unique_ptr<Lane> lane_;
};

/** A lane of a shared archive, and blades: each on the link of its number. */
class BladesFixture : public LaneFixture {
  protected:
    // It uses the storage until it has ended, also when a test ends early.
    void TearDown() override { lane_.reset(); }

    void startShared(const LaneSettings& settings) {
        auto store = std::make_unique<MemoryStore>(database_, true);
        store_ = store.get();
        start(std::move(store), settings);
    }

    static LogName logOf(LinkNumber link) { return {.blade = "BLADE-" + std::to_string(link)}; }
    static SeriesKey keyOf(LinkNumber link) {
        return {{"ENC-A", "BLADE-" + std::to_string(link), 1}, 1};
    }
    void addStatus(LinkNumber link) {
        batch_.add(link, Batch::Kind::STATUS, statusBody(logOf(link), 0, {1, 2, 3}));
    }
    void addEvents(LinkNumber link, U32_t first, U32_t last) {
        for (U32_t id = first; id <= last; ++id) {
            batch_.add(link, Batch::Kind::EVENT, eventBody({.log = logOf(link), .id = id}));
        }
    }
    void addInquiry(LinkNumber link) {
        batch_.add(link, Batch::Kind::INQUIRY, inquiryBody(LAST, logOf(link), 0));
    }

    MemoryDatabase database_;
    MemoryStore* store_ = nullptr;
};

} // namespace evarchive

#endif
