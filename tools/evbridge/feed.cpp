#include "feed.h"

#include "archive.h"
#include "common/text.h"
#include "engine.h"
#include "evctl/cursor.h"
#include "id_runs.h"
#include "sources/source.h"

#include <chrono>
#include <map>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>

namespace evbridge {
namespace {

using evarchive::Level;
using evarchive::Say;
using Clock = std::chrono::steady_clock;

// Events can come behind later ones of their log: so often all of it is looked through.
constexpr std::chrono::seconds WHOLE_LOOK{60};

/** An archive: of each generation of each log the ids that were handed on. */
class ArchiveFeed final : public Feed {
  public:
    ArchiveFeed(const std::string& from, const std::string& position, Say say)
        : store_(evarchive::readerOf(from)), say_(std::move(say)) {
        std::istringstream lines(position);
        for (std::string line; std::getline(lines, line);) {
            const std::size_t blank = line.find(' ');
            if (blank == std::string::npos) {
                throw std::runtime_error("the cursor is not one of an archive");
            }
            done_[line.substr(blank + 1)] = IdRuns::parse(line.substr(0, blank));
        }
    }

    Images more(std::size_t most) override {
        given_.clear();
        Images images;
        const auto generations = store_->listGenerations();
        for (const auto& generation : generations) {
            addNewest(generation, most, images);
        }
        if (given_.empty() && Clock::now() >= nextWholeLook_) {
            for (const auto& generation : generations) {
                addLate(generation, most, images);
            }
            if (given_.size() < most) {
                nextWholeLook_ = Clock::now() + WHOLE_LOOK;
            }
        }
        if (images.empty() && !given_.empty()) {
            taken(); // nothing of it is handed on
            return more(most);
        }
        return images;
    }

    void taken() override {
        for (const auto& [name, id] : given_) {
            done_[name].add(id);
        }
        given_.clear();
    }

    std::string position() const override {
        std::string lines;
        for (const auto& [name, runs] : done_) {
            lines += runs.text() + " " + name + "\n";
        }
        return lines;
    }

  private:
    static std::string nameOf(const evarchive::GenerationInfo& generation) {
        const auto& [blade, instance] = generation.key;
        return tools::escapedText(blade.enclosure) + "/" + tools::escapedText(blade.blade) + "/" +
               std::to_string(blade.slot) + "/" + std::to_string(instance) + "/" +
               std::to_string(generation.number.generation);
    }

    // What has come behind the last event that was handed on.
    void addNewest(const evarchive::GenerationInfo& generation, std::size_t most, Images& images) {
        const std::string name = nameOf(generation);
        const auto known = done_.find(name);
        std::optional<U32_t> last;
        if (known != done_.end() && !known->second.empty()) {
            last = known->second.last();
        }
        while (given_.size() < most) {
            auto event = store_->findEvent(
                generation.number, last ? EMP_E_INQUIRY_TYPE_NEXT : EMP_E_INQUIRY_TYPE_FIRST,
                last.value_or(0));
            if (!event) {
                return;
            }
            last = event->sequenceId;
            give(name, std::move(*event), images);
        }
    }

    // What has come late, before it.
    void addLate(const evarchive::GenerationInfo& generation, std::size_t most, Images& images) {
        const std::string name = nameOf(generation);
        const IdRuns done = done_[name];
        std::vector<IdRun> held; // the store must not be called meanwhile
        store_->forEachRun(generation.number, 0,
                           [&held](const IdRun& run) { held.push_back(run); });
        for (const IdRun& run : held) {
            done.forEachMissing(run, [&](U32_t id) {
                if (auto event = store_->heldEvent(generation.number, id)) {
                    give(name, std::move(*event), images);
                }
                return given_.size() < most;
            });
        }
    }

    void give(const std::string& name, evarchive::StoredEvent event, Images& images) {
        if (event.doubtful) {
            return; // it is certain later, or gone
        }
        given_.emplace_back(name, event.sequenceId);
        if (!evarchive::isWholeEvent(event.image)) {
            say_(Level::WARNING,
                 name + ": event " + std::to_string(event.sequenceId) + " is damaged, left out");
        } else if (event.own) { // else it is handed on with its own log
            images.push_back(std::move(event.image));
        }
    }

    std::unique_ptr<evarchive::StoreReader> store_;
    Say say_;
    std::map<std::string, IdRuns> done_;
    std::vector<std::pair<std::string, U32_t>> given_;
    Clock::time_point nextWholeLook_;
};

/** The log file of a blade, which may be running. */
class LogFeed final : public Feed {
  public:
    LogFeed(std::string path, const std::string& position) : path_(std::move(path)) {
        if (!position.empty()) {
            const auto cursor = evctl::Cursor::parse(position.substr(0, position.find('\n')));
            if (!cursor) {
                throw std::runtime_error("the cursor is not one of a log file");
            }
            cursor_ = *cursor;
        }
        open();
    }

    Images more(std::size_t most) override {
        Images images;
        next_ = cursor_;
        const auto changed = changeOf(path_);
        if (isRead_ && changed == readAt_) {
            return images;
        }
        sources::Sources logs = open();
        evctl::Resume resume(cursor_, false);
        for (const auto& log : logs) {
            resume.look(*log);
        }
        sources::Merge events(std::move(logs));
        while (images.size() < most) {
            const auto event = events.next();
            if (!event) {
                // A change within the same tick of the clock does not show.
                isRead_ = images.empty() && time(nullptr) > changed.first + 1;
                readAt_ = changed;
                break;
            }
            if (resume.wants(*event)) {
                images.push_back(imageOf(event->view));
                next_.moveTo(*event);
            }
        }
        return images;
    }

    void taken() override { cursor_ = next_; }

    std::string position() const override { return cursor_.text() + "\n"; }

  private:
    using Change = std::pair<time_t, long>;

    static Change changeOf(const std::string& path) {
        struct stat info {};
        return stat(path.c_str(), &info) == 0 ? Change(info.st_mtim.tv_sec, info.st_mtim.tv_nsec)
                                              : Change();
    }

    static Bytes imageOf(const sources::EventView& view) {
        const auto* header = reinterpret_cast<const U8_t*>(view.header);
        Bytes image(header, header + sizeof(*view.header));
        image.insert(image.end(), view.data.begin(), view.data.end());
        return image;
    }

    // What stands in the log only: copies and alternate files have no order of their own.
    sources::Sources open() const {
        sources::Sources all = sources::openSources(path_);
        std::erase_if(
            all, [](const auto& source) { return source->origin().kind != sources::Kind::LOG; });
        if (all.empty()) {
            throw std::runtime_error(path_ + ": neither an archive nor a log file");
        }
        return all;
    }

    std::string path_;
    evctl::Cursor cursor_;
    evctl::Cursor next_;
    bool isRead_ = false;
    Change readAt_;
};

bool isArchive(const std::string& from) {
    if (evarchive::isPgPlace(from)) {
        return true;
    }
    struct stat info {};
    if (stat(from.c_str(), &info) != 0) {
        throw std::runtime_error(from + ": there is no such file");
    }
    if (!S_ISREG(info.st_mode)) {
        return false;
    }
    const auto logs = sources::openSources(from);
    return !logs.empty() && logs.front()->origin().kind == sources::Kind::ARCHIVE;
}

} // namespace

std::unique_ptr<Feed> openFeed(const std::string& from, const std::string& position,
                               const Say& say) {
    if (isArchive(from)) {
        return std::make_unique<ArchiveFeed>(from, position, say);
    }
    return std::make_unique<LogFeed>(from, position);
}

} // namespace evbridge
