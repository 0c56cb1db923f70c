#include "outbox.h"

#include "whole_send.h"

#include <utility>

namespace evarchive {

void Outbox::add(Answer answer) {
    bytes_ += answer.message.size();
    answers_.push_back(std::move(answer));
}

Outbox::State Outbox::flush(int descriptor) {
    while (!answers_.empty()) {
        Answer& answer = answers_.front();
        if (!shorten(answer, descriptor)) {
            isTooLong_ = true;
            return State::BROKEN;
        }
        switch (sendWhole(descriptor, answer.message)) {
        case Sent::WHOLE:
            bytes_ -= answer.message.size();
            answers_.pop_front();
            break;
        case Sent::LATER:
            return State::LATER; // TCP does not say when everything is acknowledged
        default:
            return State::BROKEN;
        }
    }
    return State::EMPTY;
}

bool Outbox::shorten(Answer& answer, int descriptor) {
    const std::size_t longest = longest_ > 0 ? longest_ : longestWhole(descriptor);
    if (answer.message.size() <= longest) {
        return true;
    }
    if (answer.instead.empty() || answer.instead.size() > longest) {
        return false;
    }
    ++shortened_.count;
    shortened_.length = answer.message.size();
    shortened_.longest = longest;
    bytes_ -= answer.message.size() - answer.instead.size();
    answer.message = std::exchange(answer.instead, {});
    return true;
}

Outbox::Shortened Outbox::takeShortened() {
    return std::exchange(shortened_, {});
}

} // namespace evarchive
