#include "sources/source.h"

#include <algorithm>

namespace sources {
namespace {

class LogSource final : public Source {
  public:
    LogSource(Origin origin, EvlogImage_t image, bool fileOrder)
        : Source(std::move(origin)), image_(std::move(image)) {
        evlogWalk(image_, {.onRecord =
                               [this](const EvlogRecord_t& record) {
                                   if (record.role != EVLOG_E_ROLE_DUMMY) {
                                       records_.push_back(record);
                                   }
                               },
                           .onFinding = [this](const EvlogFinding_t& finding) { say(finding); }});
        if (!fileOrder) {
            // The ring's oldest records lie behind its newest ones.
            std::stable_partition(
                records_.begin(), records_.end(),
                [](const EvlogRecord_t& record) { return record.role == EVLOG_E_ROLE_OLDEST; });
        }
    }

    std::optional<Event> next() override {
        if (next_ == records_.size()) {
            return std::nullopt;
        }
        const EvlogRecord_t& record = records_[next_++];
        return Event{.view = eventOf(record),
                     .origin = &origin_,
                     .position = record.offset,
                     .record = &record};
    }

    void rewind() override { next_ = 0; }

  private:
    void say(const EvlogFinding_t& finding) {
        problems_.push_back("offset " + std::to_string(finding.offset) + ", " +
                            std::to_string(finding.bytes) +
                            " bytes: " + evlogReasonText(finding.reason));
    }

    EvlogImage_t image_;
    std::vector<EvlogRecord_t> records_;
    size_t next_ = 0;
};

} // namespace

std::unique_ptr<Source> logSource(Origin origin, EvlogImage_t image, bool fileOrder) {
    return std::make_unique<LogSource>(std::move(origin), std::move(image), fileOrder);
}

} // namespace sources
