/**
 * @file
 * An archiver of a world: the real archive over its connection to the storage, and what a lane does
 * around it, one request after the other.
 */
#ifndef EXHAUSTIVE_ARCHIVER_H
#define EXHAUSTIVE_ARCHIVER_H

#include "archive.h"
#include "exhaustive_storage.h"
#include "parking.h"

#include <deque>
#include <gmock/gmock.h>

namespace exhaustive {

/** What a link brought. */
struct Request {
    LinkNumber link;
    Batch::Kind kind;
    Bytes body;
};

class Archiver;

/** Those who speak to archivers, and those who watch. */
class Around {
  public:
    virtual ~Around() = default;

    /** @param verdict none: the blade is to send all again */
    virtual void deliver(const Archiver& from, LinkNumber link,
                         const std::optional<StatusVerdict>& verdict) = 0;

    /** The blade has a later link. */
    virtual void close(const Archiver& from, LinkNumber link) = 0;

    /** Something is committed. */
    virtual void noteSafe() = 0;
};

class Archiver {
  public:
    Archiver(Storage& storage, Around& around, std::size_t number)
        : storage_(storage), around_(around), number_(number) {
        restart();
    }

    void bring(LinkNumber link, Batch::Kind kind, Bytes body = {}) {
        queue_.push_back({link, kind, std::move(body)});
    }

    bool isUncommitted() const { return archive_->isUncommitted(); }
    bool isWarm() const { return isWarm_; }
    bool canWork() const { return !queue_.empty() || canUnpark(); }
    bool isBusy() const { return !queue_.empty() || !parking_.isEmpty() || isUncommitted(); }

    /** Whether handshakes were claimed together so far. */
    bool hasClaimedTogether() const { return isTogether_; }

    /** Whether the storage could not be used at some time, so that something was done again. */
    bool wasHeldUp() const { return isHeldUp_; }

    /** As a lane does: up to the end of the queue, handshakes of a shared storage that wait one
     * behind the other together, then what has waited for a lock. */
    void work() {
        guarded([this] {
            workOff();
            if (canUnpark()) {
                unpark();
                workOff();
            }
        });
    }

    void commit() {
        guarded([this] { commitOnce(); });
    }

    void fail() {
        archive_->abandon();
        isWarm_ = false;
        rewind();
    }

    /** The connection is lost in the commit, which is made: now, or later. */
    void failUnheard(Lost lost) {
        storage_.loseAnswer(number_, *store_, lost);
        try {
            archive_->commit();
        } catch (const StoreConflict& conflict) {
            undo(conflict);
            storage_.endLosing(number_);
            return;
        } catch (const StoreError&) {
            // Nothing tells that it is safe.
        }
        fail();
        storage_.endLosing(number_);
    }

    void restart() {
        archive_.reset();
        store_.reset();
        store_ = storage_.open(number_);
        archive_ =
            std::make_unique<Archive>(*store_, ArchiveSettings{}, [](Level, const std::string&) {});
        parking_ = Parking();
        parked_ = 0;
        queue_.clear();
        worked_.clear();
        held_.clear();
        isWarm_ = false;
    }

    /** What goes on in the same way has the same text, but for what is known by heart. */
    template <typename NameOf>
    std::string text(NameOf nameOf) const {
        std::ostringstream out;
        out << isWarm_ << held_.size() << 'c' << conflicts_ << 'p' << parked_ << ' ';
        for (const auto* requests : {&queue_, &worked_}) {
            for (const Request& request : *requests) {
                out << request.link << static_cast<int>(request.kind)
                    << (request.kind == Batch::Kind::STATUS ? "s" : nameOf(request.body)) << ' ';
            }
            out << '|';
        }
        return out.str();
    }

  private:
    template <typename Call>
    void guarded(Call call) {
        try {
            call();
        } catch (const StoreConflict& conflict) {
            undo(conflict);
        } catch (const StoreLocked& locked) {
            undo(locked);
        } catch (const StoreError& error) {
            holdUp(error);
        }
    }

    void workOff() {
        while (!queue_.empty()) {
            if (park()) {
                continue;
            }
            const bool isClaimed =
                queue_.front().kind == Batch::Kind::STATUS && archive_->isClaimed();
            const std::size_t together = isClaimed ? claimAhead() : 0;
            for (std::size_t i = 0; i < std::max<std::size_t>(together, 1); ++i) {
                workOne();
            }
            if (isClaimed) {
                commitOnce();
            }
        }
    }

    // What waits for a lock is out of the transactions.
    bool park() {
        const auto& [link, kind, body] = queue_.front();
        if (!parking_.take({link, kind, 0, 0, 0}, body, *archive_)) {
            return false;
        }
        queue_.pop_front();
        ++parked_;
        return true;
    }

    bool canUnpark() const { return !parking_.isEmpty() && queue_.empty() && !isUncommitted(); }

    void unpark() {
        const auto locked = store_->lockedOf(parking_.locked());
        if (locked.size() == parking_.locked().size()) {
            return;
        }
        const auto waited = parking_.release(locked);
        parked_ = 0;
        for (const Batch::Request& request : waited->requests()) {
            const View body = waited->bodyOf(request);
            bring(request.link, request.kind, Bytes(body.begin(), body.end()));
        }
    }

    // A transaction of another process is in the way, or the connection was lost.
    void holdUp(const StoreError& error) {
        ASSERT_TRUE(error.isPassing()) << error.what();
        isHeldUp_ = true;
        fail();
    }

    void undo(const StoreLocked& locked) {
        if (!parking_.lock(locked.locked())) {
            holdUp(locked);
            return;
        }
        isHeldUp_ = true;
        archive_->abandon(locked);
        rewind();
    }

    void undo(const StoreConflict& conflict) {
        archive_->abandon(conflict);
        ++conflicts_;
        rewind();
        for (const LinkNumber link : archive_->loseClaims(conflict.lost())) {
            around_.close(*this, link);
        }
    }

    void rewind() {
        std::erase_if(held_, [](const auto& reply) { return reply.second.has_value(); });
        while (!worked_.empty()) {
            queue_.push_front(std::move(worked_.back()));
            worked_.pop_back();
        }
    }

    std::size_t claimAhead() {
        commitOnce();
        std::vector<EmpGetEvArchiverStatusMsg_t> group;
        std::set<SeriesKey> logs;
        for (const Request& request : queue_) {
            const auto status =
                request.kind == Batch::Kind::STATUS
                    ? std::optional(imageOf<EmpGetEvArchiverStatusMsg_t>(request.body))
                    : std::nullopt;
            if (!status || !logs.insert(logOf(*status)).second ||
                parking_.mustWait({request.link, request.kind, 0, 0, 0}, request.body, *archive_)) {
                break;
            }
            group.push_back(*status);
        }
        archive_->claimAhead(group);
        isTogether_ = isTogether_ || group.size() > 1;
        return group.size();
    }

    static Certainty certaintyOf(Batch::Kind kind) {
        return kind == Batch::Kind::EVENT    ? Certainty::CERTAIN
               : kind == Batch::Kind::SILENT ? Certainty::SILENT
                                             : Certainty::ENDED;
    }

    void workOne() {
        isWarm_ = true;
        Request request = queue_.front();
        const auto& [link, kind, body] = request;
        if (kind == Batch::Kind::STATUS) {
            held_.emplace_back(
                link, archive_->answerStatus(link, imageOf<EmpGetEvArchiverStatusMsg_t>(body)));
        } else if (kind == Batch::Kind::END_OF_LINK) {
            archive_->endLink(link);
        } else if (kind == Batch::Kind::TAKE_BACK) {
            archive_->takeBack(link, body);
        } else if (archive_->fileEvent(link, body, certaintyOf(kind)) == Filed::NEW_GENERATION) {
            held_.emplace_back(link, std::nullopt);
        }
        worked_.push_back(std::move(request));
        queue_.pop_front();
        if (!isUncommitted()) {
            commitOnce();
        }
    }

    void commitOnce() {
        archive_->commit();
        worked_.clear();
        around_.noteSafe();
        for (const auto& [link, verdict] : std::exchange(held_, {})) {
            around_.deliver(*this, link, verdict);
        }
    }

    Storage& storage_;
    Around& around_;
    std::size_t number_;
    std::unique_ptr<Store> store_;
    std::unique_ptr<Archive> archive_;
    Parking parking_;
    std::size_t parked_ = 0;
    std::deque<Request> queue_;  ///< came, not worked off
    std::deque<Request> worked_; ///< worked off, not committed
    std::vector<std::pair<LinkNumber, std::optional<StatusVerdict>>> held_; ///< replies; none:
                                                                            ///< send all again
    bool isWarm_ = false;     ///< knows something by heart
    bool isHeldUp_ = false;   ///< something could not be done at once
    bool isTogether_ = false; ///< handshakes were claimed together
    U32_t conflicts_ = 0;     ///< what it knows may be what it saved before them
};

} // namespace exhaustive

#endif
