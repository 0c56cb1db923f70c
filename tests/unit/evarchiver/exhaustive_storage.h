/**
 * @file
 * What the archivers of a world file into, as far as the world has to do with it.
 */
#ifndef EXHAUSTIVE_STORAGE_H
#define EXHAUSTIVE_STORAGE_H

#include "memory_store.h"

#include <memory>

namespace exhaustive {

using namespace evarchive;

/** What is lost in a commit: the answer, or the connection, and the commit is made later. */
enum class Lost : U8_t { ANSWER, CONNECTION };

/** A storage that several processes use, and somebody who looks into it beside them. */
class Storage {
  public:
    virtual ~Storage() = default;

    /** For a process that begins now; what it had before is closed. */
    virtual std::unique_ptr<Store> open(std::size_t process) = 0;

    /** The next commit of a process is made, but not heard of, or is not made. */
    virtual void loseAnswer(std::size_t process, Store& store, Lost lost) = 0;

    /** There was none, or it is over. */
    virtual void endLosing(std::size_t process) = 0;

    /** A commit that is still to be made, of a connection that was lost. */
    virtual bool hasLate() const = 0;
    virtual void makeLate() = 0;

    /** Somebody keeps the blade's log locked. */
    virtual void lock() = 0;
    virtual void letGo() = 0;

    /** Processes that stand still within a transaction are no more in the way of others. */
    virtual void endStalled() {}

    /** The storage as all can see it. */
    virtual Store& look() = 0;

    /** What cannot be seen of it, but makes a difference. */
    virtual std::string hiddenText() const { return {}; }
};

/** In memory. */
class MemoryStorage : public Storage {
  public:
    explicit MemoryStorage(bool isShared) : isShared_(isShared) {}

    std::unique_ptr<Store> open(std::size_t /*process*/) override {
        return std::make_unique<MemoryStore>(database_, isShared_);
    }
    void loseAnswer(std::size_t /*process*/, Store& store, Lost lost) override {
        auto& connection = dynamic_cast<MemoryStore&>(store);
        if (lost == Lost::ANSWER) {
            connection.failAfterCommit();
        } else {
            connection.failBeforeCommit();
        }
    }
    void endLosing(std::size_t /*process*/) override {} // a rollback ends it
    bool hasLate() const override { return database_.late.has_value(); }
    void makeLate() override {
        const auto late = std::exchange(database_.late, std::nullopt);
        for (const auto& change : late->changes) {
            change(database_);
        }
    }
    void lock() override { database_.locked = {{{"ENC-A", "BLADE-1", 1}, 1}}; }
    void letGo() override { database_.locked.clear(); }
    Store& look() override { return look_; }

    std::string hiddenText() const override {
        std::string text = std::to_string(database_.aside.size());
        for (const auto& [series, epoch] : database_.epochs) {
            text += 'e' + std::to_string(epoch);
        }
        for (const auto& [key, generation] : database_.generations) {
            if (const auto& run = generation.info.proven) {
                text += 'r' + std::to_string(run->first) + '-' + std::to_string(run->last);
            }
        }
        return text;
    }

  private:
    bool isShared_;
    MemoryDatabase database_;
    MemoryStore look_{database_};
};

} // namespace exhaustive

#endif
