#include "bridge.h"

#include "cursor_file.h"
#include "feed.h"
#include "sink.h"

#include <cerrno>
#include <csignal>

namespace evbridge {
namespace {

using evarchive::Level;
using evarchive::Say;
using std::chrono::milliseconds;

// Events between two confirmations.
constexpr std::size_t BATCH = 500;

// While a receiver or a source is away.
constexpr milliseconds FIRST_PAUSE{250};
constexpr milliseconds LONGEST_PAUSE{30'000};

sigset_t ends() {
    sigset_t set{};
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

// @return whether the end was asked for meanwhile
bool waitForEnd(milliseconds time) {
    const sigset_t set = ends();
    const timespec wait{time.count() / 1000, time.count() % 1000 * 1'000'000};
    int signal = 0;
    do {
        signal = sigtimedwait(&set, nullptr, &wait);
    } while (signal < 0 && errno == EINTR);
    return signal > 0;
}

/** The course of things. */
class Bridge {
  public:
    Bridge(const Options& options, const Say& say)
        : options_(options), say_(say), file_(options.cursor) {
        const auto kept = file_.read();
        cursor_ = kept.value_or(Cursor{});
        sink_ = openSink(options.sink, cursor_.suppressed);
        feed_ = openFeed(options.from, cursor_.position, say);
        if (options.skipOld && !kept) {
            skip();
        }
    }

    int run() {
        while (!waitForEnd(pause_)) {
            const bool isDone = step();
            if (isDone && options_.once) {
                break;
            }
        }
        say_(Level::INFO, "summary: " + std::to_string(handedOn_) + " events handed on, " +
                              std::to_string(left_) + " left out by the filters");
        return 0;
    }

  private:
    void skip() {
        const auto skipped = feed_->skip();
        keep();
        say_(Level::INFO, skipped ? std::to_string(*skipped) + " events that are there are left out"
                                  : "what is there is left out");
    }

    // @return whether there was nothing more to hand on
    bool step() {
        bool isIdle = false;
        bool isDone = false;
        try {
            const Entries entries = look();
            isIdle = entries.empty();
            isDone = isIdle && feed_->hasAll();
            sink_->settle(isDone && options_.once);
            handOn(entries);
        } catch (const std::exception& error) {
            backOff(error.what());
            return false;
        }
        feed_->taken();
        keep();
        if (isAway_) {
            isAway_ = false;
            say_(Level::NOTICE, "goes on");
        }
        away_ = FIRST_PAUSE;
        pause_ = isIdle ? options_.interval : milliseconds(0);
        return isDone;
    }

    // A feed that has failed is opened anew, where it stood.
    Entries look() {
        if (!feed_) {
            feed_ = openFeed(options_.from, cursor_.position, say_);
        }
        try {
            return feed_->more(BATCH);
        } catch (const std::exception&) {
            feed_.reset();
            throw;
        }
    }

    void keep() {
        cursor_ = {.suppressed = sink_->suppressed(), .position = feed_->position()};
        file_.write(cursor_);
    }

    bool isWanted(const Entry& entry) const {
        const sources::EventView event = entry.event();
        return sink_->takes(entry) && (entry.gone ? options_.filter.logs.matches(*event.header)
                                                  : options_.filter.matches(event));
    }

    void handOn(const Entries& entries) {
        U64_t sent = 0;
        for (const Entry& entry : entries) {
            if (isWanted(entry)) {
                sink_->send(entry);
                ++sent;
            }
        }
        if (sent > 0) {
            sink_->confirm();
        }
        handedOn_ += sent;
        left_ += entries.size() - sent;
    }

    void backOff(const std::string& why) {
        if (!isAway_) {
            isAway_ = true;
            say_(Level::WARNING, why + "; events wait, tried again");
        }
        pause_ = away_;
        away_ = std::min(away_ * 2, LONGEST_PAUSE);
    }

    const Options& options_;
    const Say& say_;
    CursorFile file_;
    Cursor cursor_;
    std::unique_ptr<Sink> sink_;
    std::unique_ptr<Feed> feed_;
    milliseconds pause_{0};
    milliseconds away_ = FIRST_PAUSE;
    bool isAway_ = false;
    U64_t handedOn_ = 0;
    U64_t left_ = 0;
};

} // namespace

int runBridge(const Options& options, const Say& say) {
    const sigset_t set = ends();
    sigprocmask(SIG_BLOCK, &set, nullptr);
    return Bridge(options, say).run();
}

} // namespace evbridge
