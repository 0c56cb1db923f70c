// How a blade's processes end: by themselves, which may begin them anew, or because the blade does.
#include "blade.h"
#include "bug_check.h"
#include "common/exit_status.h"
#include "common/say.h"
#include "configuration.h"

#include <csignal>
#include <cstring>

namespace blade {

using tools::say;

namespace {

constexpr std::chrono::seconds END_TIMEOUT{5};
/** An event manager that stood so long starts with a clean record. */
constexpr std::chrono::seconds STABLE{60};

} // namespace

void Blade::watchSignals() {
    endSignals_.async_wait([this](std::error_code error, int number) {
        if (error) {
            return;
        }
        if (stopping_) {
            say("stopping at once");
            emp_.signal(SIGKILL);
            msm_.signal(SIGKILL);
        } else {
            stop(std::string("stopping: ") + strsignal(number));
        }
        watchSignals();
    });
}

void Blade::watchChildren() {
    childSignals_.async_wait([this](std::error_code error, int) {
        if (error) {
            return;
        }
        watchChildren();
        for (Child* child : {&emp_, &msm_}) {
            if (child->reap()) {
                childEnded(*child);
            }
        }
    });
}

void Blade::watchRenames() {
    renameSignals_.async_wait([this](std::error_code error, int) {
        if (!error) {
            msmOutput_.followName();
            empOutput_.followName();
            watchRenames();
        }
    });
}

void Blade::childEnded(Child& child) {
    linesOfEndedChild(child);
    if (stopping_) {
        // A switch that dies takes the event manager along, whose end may be seen first.
        if (child.diedByItself()) {
            say(child.ending());
        }
        stopNext();
        return;
    }
    if (&child == &emp_ && up_ && startAgain()) {
        return;
    }
    if (!up_) {
        fail(child.ending() + " before the blade was up" +
             (&child == &emp_ && options_.empLog != "-" ? ", see " + options_.empLog : ""));
    } else if (&child == &emp_ && options_.keep) {
        status_ = tools::EXIT_FINDING;
        say(child.ending() + "; the blade stays up, start it again with: emp " +
            std::to_string(block_.key()));
    } else {
        fail(child.ending());
    }
}

void Blade::linesOfEndedChild(const Child& child) {
    if (&child == &msm_) {
        msmOutput_.finish();
        return;
    }
    empOutput_.finish();
    std::optional<BugCheck> found = findBugCheck(empOutput_.tail());
    if (found && child.failed()) {
        say("bug-check of the event manager: " + found->message);
        say("bug-check in " + found->function + ", line " + found->line + "; the report is in " +
            (options_.empLog == "-" ? "the lines above" : options_.empLog) +
            ", its records for the next start in " + block_.nvramDirectory() +
            EMP_AEL_DIRECTORY_NAME + " (evctl file crash " + block_.nvramDirectory() + ")");
    }
}

/** @return whether the event manager is on its way again */
bool Blade::startAgain() {
    if (!options_.restart || !emp_.failed()) {
        return false;
    }
    if (std::chrono::steady_clock::now() - empStarted_ >= STABLE) {
        restarts_ = 0;
    }
    if (restarts_ == options_.restartLimit) {
        say("the event manager was started again " + std::to_string(restarts_) +
            " times in a row: no more");
        return false;
    }
    ++restarts_;
    status_ = tools::EXIT_FINDING;
    say(emp_.ending() + "; it is started again (" + std::to_string(restarts_) + " of " +
        std::to_string(options_.restartLimit) + ")");
    startEventManager();
    return true;
}

void Blade::fail(const std::string& why) {
    status_ = tools::EXIT_FINDING;
    stop(why);
}

/** The event manager first: it must not see its switch go. */
void Blade::stop(const std::string& why) {
    say(why);
    stopping_ = true;
    stopNext();
}

void Blade::stopNext() {
    deadline_.cancel();
    for (Child* child : {&emp_, &msm_}) {
        if (child->running()) {
            child->signal(SIGTERM);
            waitForEnd();
            return;
        }
    }
    say("down");
    loop_.stop();
}

void Blade::waitForEnd() {
    deadline_.expires_after(END_TIMEOUT);
    deadline_.async_wait([this](std::error_code cancelled) {
        if (!cancelled) {
            for (Child* child : {&emp_, &msm_}) {
                child->signal(SIGKILL);
            }
        }
    });
}

} // namespace blade
