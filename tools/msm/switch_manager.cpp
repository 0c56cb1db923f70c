// What the switch does for the event manager alone: one at a time, and nothing for it is dropped.
#include "common/say.h"
#include "switch.h"

namespace msm {

using tools::say;

/** Two event managers would write one log. */
bool Switch::refuseSecondManager(const std::string& name) {
    // One that died may have left more to read: its successor need not wait for that.
    if (!manager_ || manager_->peerIsGone()) {
        return false;
    }
    ++counters_.secondManagers;
    say(name + ": refused, " + manager_->name() +
        " is connected: a second event manager would write into the log of the first");
    return true;
}

void Switch::adoptManager(std::shared_ptr<Connection> connection) {
    releaseManager();
    manager_ = std::move(connection);
    counters_.endpoints.at(MANAGER).delivered += kept_.count();
    manager_->unsent().append(kept_);
    manager_->flush();
    managerProgressed();
}

/** What the event manager had not taken waits for the next. */
void Switch::releaseManager() {
    if (!manager_) {
        return;
    }
    if (size_t count = manager_->unsent().count(); count > 0) {
        counters_.endpoints.at(MANAGER).delivered -= count;
        say(manager_->name() + ": " + std::to_string(count) +
            " messages that waited for it are kept for the next event manager");
        kept_.append(manager_->unsent());
    }
    manager_.reset();
}

/** Nothing for the event manager is dropped: its sender waits. The event manager itself is always
 * read, so that the two cannot wait for each other. */
bool Switch::mustWait(U32_t endpoint, U64_t recipients) const {
    return ((recipients >> MANAGER) & 1) != 0 && endpoint != MANAGER &&
           !(manager_ && manager_->hasRoom());
}

void Switch::holdSender(Connection& from) {
    ++counters_.held;
    if (!manager_ && hold_.empty()) {
        say(from.name() + ": waits for an event manager to connect, for " +
            std::to_string(options_.hold) + " seconds at most");
    } else if (options_.trace) {
        say(from.name() + ": held, the event manager is slower");
    }
    hold_.add(from.shared_from_this());
}

void Switch::managerProgressed() {
    if (!manager_) {
        return;
    }
    hold_.restart();
    if (manager_->unsent().count() <= options_.queueMax / 2) {
        hold_.release();
    }
}

void Switch::heldTooLong(Connection& from) {
    ++counters_.heldTooLong;
    from.close("closed, it waited " + std::to_string(options_.hold) + " seconds for " +
               (manager_ ? manager_->name() + ", which takes nothing"
                         : std::string("an event manager, but none is connected")));
}

} // namespace msm
