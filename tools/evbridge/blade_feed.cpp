#include "evctl/inquiry.h"
#include "feed.h"
#include "ring_place.h"

#include <stdexcept>
#include <sys/shm.h>

namespace evbridge {
namespace {

using evctl::InquiryAnswer;
using evctl::LogMark;

// So close to the oldest event it is asked for again and again, see BladeFeed.
constexpr U32_t NARROW = 256;

constexpr double ANSWER_SECONDS = 5;

/**
 * A running blade, asked through its message switch. An inquiry that its event manager cannot
 * answer from its own log goes to the archiver, of which it allows itself only some in its life: so
 * nothing is asked for but what certainly is in the log, its newest and its oldest event being told
 * first.
 */
class BladeFeed final : public Feed {
  public:
    BladeFeed(int key, U32_t endpoint, const std::string& position) {
        readBlock(key);
        request_.endpoint = endpoint;
        request_.timeout = ANSWER_SECONDS;
        const auto place = RingPlace::parse(position.substr(0, position.find('\n')));
        if (!place) {
            throw std::runtime_error("the cursor is not one of a blade");
        }
        place_ = *place;
        requester_.emplace(request_);
    }

    Entries more(std::size_t most) override {
        Entries entries;
        next_ = place_;
        const InquiryAnswer last = ask(EMP_E_INQUIRY_TYPE_LAST, {}, 0);
        if (!last.found()) {
            return entries;
        }
        const LogMark newest = evctl::markOf(*last.event().header);
        if (newest == place_.last() || newest == refusedAt_) {
            return entries;
        }
        log_.instance = newest.instance; // also of an event that was replayed
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
    InquiryAnswer ask(EMP_INQUIRY_TYPE_e type, const evctl::LogIdentity& log, U32_t id) {
        return evctl::inquire(*requester_, type, log, id);
    }

    // Only what is asked about the very log is answered from it.
    void readBlock(int key) {
        const MPU_PARAMS_t& params = evctl::attachParams({.key = key});
        request_.where.directory =
            evctl::fieldText(params.mmsgDirectory, sizeof(params.mmsgDirectory));
        log_.enclosure = evctl::fieldText(params.chassisSN, sizeof(params.chassisSN));
        log_.blade = evctl::fieldText(params.serialStr, sizeof(params.serialStr));
        log_.slot = params.slotId;
        shmdt(&params);
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
        const InquiryAnswer first = ask(EMP_E_INQUIRY_TYPE_FIRST, {}, 0);
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
        const InquiryAnswer there = ask(EMP_E_INQUIRY_TYPE_EXACT, log_, next_.last()->sequenceId);
        return there.found() && evctl::markOf(*there.event().header) != *next_.last();
    }

    // The next event, which there is. @return false: it was refused
    bool goOn(Entries& entries) {
        const U32_t id = next_.last()->sequenceId;
        if (id - oldest_ < NARROW) {
            if (!lookAtOldest(entries)) {
                return false;
            }
            if (next_.last()->sequenceId != id) {
                return true;
            }
        }
        const InquiryAnswer answer = ask(EMP_E_INQUIRY_TYPE_NEXT, log_, id);
        if (!answer.found() || answer.event().header->evSequenceId <= id) {
            return false;
        }
        next_.take(answer.event(), entries);
        return true;
    }

    evctl::RequestOptions request_;
    std::optional<evctl::Requester> requester_;
    evctl::LogIdentity log_;
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
