#include "evctl/send/confirm.h"

#include "evctl/wire/event_message.h"

#include <algorithm>

namespace evctl {
namespace {

// Far fewer than the switch keeps for a listener that is slow.
constexpr U64_t OUTSTANDING_MAX = 64;

} // namespace

bool isCopyOf(const Bytes& copy, const Bytes& sent) {
    EventView event{};
    if (readEventMessage(copy, &event) != MessageKind::EVENT) {
        return false;
    }
    const auto& fields = *reinterpret_cast<const EmpEvLogHeader_t*>(sent.data() + MMCH_SIZE);
    const EmpEvLogHeader_t& header = *event.header;
    return header.evSource == mmchOf(sent).requestor && header.evType == fields.evType &&
           header.evCategory == fields.evCategory && header.evIdVersion == fields.evIdVersion &&
           header.evId == fields.evId &&
           std::ranges::equal(event.data, std::span(sent).subspan(EMP_EVENT_MMSG_SIZE));
}

Confirmer::Confirmer(const std::string& directory, const Bytes& sent,
                     std::chrono::milliseconds patience, OnStored onStored)
    : session_(directory, MMSG_E_EPID_SMI_IND), sent_(sent), patience_(patience),
      onStored_(std::move(onStored)) {}

/** @return false when no copy comes any more */
bool Confirmer::waitForOne() {
    Deadline deadline = Clock::now() + patience_;
    while (std::optional<Bytes> message = session_.receive(deadline)) {
        if (isCopyOf(*message, sent_)) {
            EventView event{};
            readEventMessage(*message, &event);
            onStored_(*event.header);
            outstanding_--;
            return true;
        }
    }
    return false;
}

void Confirmer::beforeSending() {
    while (outstanding_ >= OUTSTANDING_MAX) {
        if (!waitForOne()) {
            missing();
        }
    }
    outstanding_++;
}

U64_t Confirmer::missing() {
    while (outstanding_ > 0 && waitForOne()) {
    }
    missing_ += outstanding_;
    outstanding_ = 0;
    return missing_;
}

} // namespace evctl
