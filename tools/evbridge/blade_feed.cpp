#include "common/text.h"
#include "evctl/filters/cursor.h"
#include "evctl/ring/ring_walk.h"
#include "feed.h"
#include "ring_place.h"

#include <stdexcept>
#include <sys/shm.h>

namespace evbridge {
namespace {

using evctl::InquiryAnswer;
using evctl::LogMark;

constexpr double ANSWER_SECONDS = 5;

/** A running blade, asked through its message switch for nothing but what its log holds. */
class BladeFeed final : public Feed {
  public:
    BladeFeed(int key, U32_t endpoint, const std::string& position) {
        const evctl::LogIdentity log = readBlock(key);
        request_.endpoint = endpoint;
        request_.timeout = ANSWER_SECONDS;
        const auto place = RingPlace::parse(position.substr(0, position.find('\n')));
        if (!place) {
            throw std::runtime_error("the cursor is not one of a blade");
        }
        place_ = *place;
        requester_.emplace(request_);
        walk_.emplace(*requester_, log);
    }

    Entries more(std::size_t most) override {
        Entries entries;
        next_ = place_;
        const InquiryAnswer last = walk_->newest();
        if (!last.found()) {
            return entries;
        }
        const LogMark newest = evctl::markOf(*last.event().header);
        if (newest == place_.last() || newest == refusedAt_) {
            return entries;
        }
        if (!begin(newest, entries)) {
            return entries;
        }
        while (next_.last()->sequenceId < newest.sequenceId && entries.size() < most) {
            if (!goOn(entries)) {
                refusedAt_ = newest;
                break;
            }
        }
        return entries;
    }

    void taken() override { place_ = next_; }

    std::string position() const override { return place_.text() + "\n"; }

  private:
    // Only what is asked about the very log is answered from it.
    evctl::LogIdentity readBlock(int key) {
        const MPU_PARAMS_t& params = evctl::attachParams({.key = key});
        request_.where.directory =
            tools::fieldText(params.mmsgDirectory, sizeof(params.mmsgDirectory));
        evctl::LogIdentity log;
        log.enclosure = tools::fieldText(params.chassisSN, sizeof(params.chassisSN));
        log.blade = tools::fieldText(params.serialStr, sizeof(params.serialStr));
        log.slot = params.slotId;
        shmdt(&params);
        return log;
    }

    // Where the last look ended, or with the oldest event. @return false: there is none
    bool begin(const LogMark& newest, Entries& entries) {
        const auto& last = place_.last();
        if (last && (last->instance != newest.instance || last->sequenceId > newest.sequenceId)) {
            next_ = {};
        }
        if (!lookAtOldest(entries)) {
            return false;
        }
        if (entries.empty() && hasBegunAgain()) {
            next_ = {};
            return lookAtOldest(entries);
        }
        return true;
    }

    // Asks where the log begins, and takes that event when those in front of it are gone.
    bool lookAtOldest(Entries& entries) {
        const InquiryAnswer first = walk_->oldest();
        if (!first.found()) {
            return false;
        }
        oldest_ = first.event().header->evSequenceId;
        if (!next_.last() || oldest_ > U64_t{next_.last()->sequenceId} + 1) {
            next_.take(first.event(), entries);
        }
        return true;
    }

    // The event of the place is another one than it was.
    bool hasBegunAgain() {
        if (next_.last()->sequenceId < oldest_) {
            return false; // just gone
        }
        const InquiryAnswer there = evctl::inquire(*requester_, EMP_E_INQUIRY_TYPE_EXACT,
                                                   walk_->log(), next_.last()->sequenceId);
        return there.found() && evctl::markOf(*there.event().header) != *next_.last();
    }

    // The next event, which there is. @return false: it was refused
    bool goOn(Entries& entries) {
        const std::optional<InquiryAnswer> answer = walk_->behind(next_.last()->sequenceId);
        if (answer) {
            next_.take(answer->event(), entries);
        }
        return answer.has_value();
    }

    evctl::RequestOptions request_;
    std::optional<evctl::Requester> requester_;
    std::optional<evctl::RingWalk> walk_;
    RingPlace place_;
    RingPlace next_;
    U32_t oldest_ = 0;
    std::optional<LogMark> refusedAt_; ///< newest event when one behind the place was refused
};

} // namespace

std::unique_ptr<Feed> bladeFeed(int key, U32_t endpoint, const std::string& position) {
    return std::make_unique<BladeFeed>(key, endpoint, position);
}

} // namespace evbridge
