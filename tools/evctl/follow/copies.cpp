#include "evctl/follow/copies.h"

#include "evctl/wire/event_message.h"

#include <iostream>

namespace evctl {
namespace {

constexpr size_t MOST_IN_A_LOG = EMP_LOG_FILE_SIZE / EMP_RECORD_SIZE;

const EmpEvLogHeader_t& headerOf(const Bytes& message) {
    return *reinterpret_cast<const EmpEvLogHeader_t*>(message.data() + MMCH_SIZE);
}

} // namespace

bool LogPosition::isBefore(const EmpEvLogHeader_t& header) const {
    LogIdentity other = identityOf(header);
    const bool isSameInstance = other.instance == log.instance;
    other.instance = log.instance;
    const auto found = shown.find(header.evSequenceId);
    const bool isShown = isSameInstance && found != shown.end() && found->second == header.evTime;
    return other == log && !isShown;
}

void LogPosition::moveTo(const EmpEvLogHeader_t& header) {
    // The events of an instance, or of a log that has begun again, count from 0.
    if (header.evInstanceNumber != log.instance || header.evSequenceId <= sequenceId) {
        shown.clear();
    }
    log.instance = header.evInstanceNumber;
    sequenceId = header.evSequenceId;
    shown[sequenceId] = header.evTime;
    if (shown.size() > MOST_IN_A_LOG) {
        shown.erase(shown.begin());
    }
}

Copies::Copies(const std::string& directory) : session_(directory, MMSG_E_EPID_SMI_IND) {}

void Copies::keep(Bytes message) {
    EventView event{};
    MessageKind kind = readEventMessage(message, &event);
    if (kind == MessageKind::BAD_EVENT) {
        std::cerr << "evctl: event message of " << message.size() << " bytes is too short\n";
    } else if (kind == MessageKind::EVENT) {
        kept_.push_back(std::move(message));
    }
}

void Copies::forget(const LogPosition& shown) {
    while (!kept_.empty() && !shown.isBefore(headerOf(kept_.front()))) {
        kept_.pop_front();
    }
}

void Copies::takeIn(const LogPosition& shown) {
    while (std::optional<Bytes> message = session_.receive(Clock::now())) {
        keep(*std::move(message));
    }
    forget(shown);
}

std::optional<Bytes> Copies::next(const LogPosition& shown, Deadline deadline) {
    for (forget(shown); kept_.empty(); forget(shown)) {
        std::optional<Bytes> message = session_.receive(deadline);
        if (!message) {
            return std::nullopt;
        }
        keep(*std::move(message));
    }
    Bytes message = std::move(kept_.front());
    kept_.pop_front();
    return message;
}

} // namespace evctl
