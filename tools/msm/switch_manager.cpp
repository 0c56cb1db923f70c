// What the switch does for the event manager alone: one at a time, and nothing for it is dropped.
#include "common/say.h"
#include "switch.h"

#include <utility>

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

void Switch::holdForManager(Connection& from) {
    ++counters_.held;
    if (!manager_ && hold_.empty()) {
        say(from.name() + ": waits for an event manager to connect, for " +
            std::to_string(options_.hold) + " seconds at most");
    } else if (options_.trace) {
        say(from.name() + ": held, the event manager is slower");
    }
    hold_.add(from.shared_from_this());
}

void Switch::holdForLink(Connection& from) {
    ++counters_.held;
    if (options_.trace) {
        say(from.name() + ": held, the other blade's event manager is slower");
    }
    linkHold_.add(from.shared_from_this());
}

void Switch::managerProgressed() {
    if (!manager_) {
        return;
    }
    hold_.restart();
    if (manager_->unsent().count() <= options_.queueMax / 2) {
        hold_.release();
        for (const std::shared_ptr<Connection>& link : std::exchange(heldLinks_, {})) {
            link->resume();
        }
    }
}

void Switch::linkProgressed() {
    linkHold_.restart();
    if (link_->eventsHaveRoom()) {
        linkHold_.release();
    }
}

void Switch::waitedForManager(Connection& from) {
    closeHeld(from, manager_ ? manager_->name() + ", which takes nothing"
                             : std::string("an event manager, but none is connected"));
}

void Switch::closeHeld(Connection& from, const std::string& waitedFor) {
    ++counters_.heldTooLong;
    from.close("closed, it waited " + std::to_string(options_.hold) + " seconds for " + waitedFor);
}

} // namespace msm
