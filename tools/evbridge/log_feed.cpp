#include "evctl/filters/cursor.h"
#include "feed.h"
#include "ring_place.h"
#include "sources/source.h"

#include <stdexcept>
#include <sys/stat.h>

namespace evbridge {
namespace {

/** The log file of a blade, which may be running. */
class LogFeed final : public Feed {
  public:
    LogFeed(std::string path, const std::string& position) : path_(std::move(path)) {
        if (!position.empty()) {
            const std::size_t end = position.find('\n');
            const auto cursor = evctl::Cursor::parse(position.substr(0, end));
            const std::string rest = end == std::string::npos ? "" : position.substr(end + 1);
            const auto place = RingPlace::parse(rest.substr(0, rest.find('\n')));
            if (!cursor || !place) {
                throw std::runtime_error("the cursor is not one of a log file");
            }
            kept_ = {*cursor, *place};
        }
        open();
    }

    Entries more(std::size_t most) override {
        Entries entries;
        next_ = kept_;
        const auto changed = changeOf(path_);
        if (isRead_ && changed == readAt_) {
            return entries;
        }
        sources::Sources logs = open();
        evctl::Resume resume(kept_.cursor, false);
        for (const auto& log : logs) {
            resume.look(*log);
        }
        sources::Merge events(std::move(logs));
        while (entries.size() < most) {
            const auto event = events.next();
            if (!event) {
                // A change within the same tick of the clock does not show.
                isRead_ = entries.empty() && time(nullptr) > changed.first + 1;
                readAt_ = changed;
                break;
            }
            if (resume.wants(*event)) {
                next_.place.take(event->view, entries);
                next_.cursor.moveTo(*event);
            }
        }
        return entries;
    }

    void taken() override { kept_ = next_; }

    std::string position() const override {
        return kept_.cursor.text() + "\n" + kept_.place.text() + "\n";
    }

  private:
    /** The cursor tells what is new, also after the log began again; the place, what is gone. */
    struct Progress {
        evctl::Cursor cursor{};
        RingPlace place{};
    };
    using Change = std::pair<time_t, long>;

    static Change changeOf(const std::string& path) {
        struct stat info {};
        return stat(path.c_str(), &info) == 0 ? Change(info.st_mtim.tv_sec, info.st_mtim.tv_nsec)
                                              : Change();
    }

    // What stands in the log only: copies and alternate files have no order of their own.
    sources::Sources open() const {
        sources::Sources all = sources::openSources(path_);
        std::erase_if(
            all, [](const auto& source) { return source->origin().kind != sources::Kind::LOG; });
        if (all.empty()) {
            throw std::runtime_error(path_ + ": it is no log file");
        }
        return all;
    }

    std::string path_;
    Progress kept_;
    Progress next_;
    bool isRead_ = false;
    Change readAt_;
};

} // namespace

std::unique_ptr<Feed> logFeed(const std::string& path, const std::string& position) {
    return std::make_unique<LogFeed>(path, position);
}

} // namespace evbridge
