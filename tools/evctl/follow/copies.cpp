#include "evctl/follow/copies.h"

#include "evctl/wire/event_message.h"

#include <iostream>

namespace evctl {
namespace {

const EmpEvLogHeader_t& headerOf(const Bytes& message) {
    return *reinterpret_cast<const EmpEvLogHeader_t*>(message.data() + MMCH_SIZE);
}

} // namespace

bool LogPosition::isBefore(const EmpEvLogHeader_t& header) const {
    LogIdentity other = identityOf(header);
    bool sameInstance = other.instance == log.instance;
    other.instance = log.instance;
    return other == log && (!sameInstance || header.evSequenceId > sequenceId);
}

void LogPosition::moveTo(const EmpEvLogHeader_t& header) {
    log.instance = header.evInstanceNumber;
    sequenceId = header.evSequenceId;
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
