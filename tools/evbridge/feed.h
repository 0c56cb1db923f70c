/**
 * @file
 * Where events come from, and how far they have been handed on.
 */
#ifndef EVBRIDGE_FEED_H
#define EVBRIDGE_FEED_H

#include "entry.h"
#include "mmsg.h"
#include "say.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>

namespace evbridge {

/** One source. What more() gives is given again, by this process or the next one, until taken() was
 * called and position() is kept. */
class Feed {
  public:
    virtual ~Feed() = default;

    /** Up to @p most events that were not handed on yet, in the order of their log. Throws
     * std::exception when the source cannot be read now. */
    virtual Entries more(std::size_t most) = 0;

    /** What the last more() gave has been handed on. */
    virtual void taken() = 0;

    /** Leaves out what is there. @return how many events it is, where they had to be looked at */
    virtual std::optional<U64_t> skip();

    /** Whether all is handed on that was there when this feed began, once there is no more. */
    virtual bool hasAll() const { return true; }

    /** How far, as lines. */
    virtual std::string position() const = 0;
};

/** Where events are. */
struct FeedOptions {
    enum class Kind : U8_t { GUESSED, ARCHIVE, LOG, BLADE };

    Kind kind = Kind::GUESSED;           ///< GUESSED: an archive or a log, by what is in the file
    std::string place{};                 ///< a file; postgresql://...
    int key = 0;                         ///< of a blade's parameter block
    U32_t endpoint = MMSG_E_EPID_SNMPMP; ///< as which a blade is asked
    std::chrono::seconds lag{5};         ///< behind the clock of a server with an archive
    std::chrono::seconds patience{15};   ///< with one such server of several that does not answer
};

/**
 * @param position what position() of an earlier feed of this place gave, "" for none
 * Throws std::runtime_error when there is nothing of the kind, or the position is none.
 */
std::unique_ptr<Feed> openFeed(const FeedOptions& from, const std::string& position,
                               const evarchive::Say& say);

// --- One kind each; as openFeed() ----------------------------------------------------------------

/** @param opening how long a file stays open: one that was opened while nobody wrote the archive
 * may never show what is written later */
std::unique_ptr<Feed> archiveFeed(const std::string& archive, const std::string& position,
                                  const evarchive::Say& say,
                                  std::chrono::milliseconds opening = std::chrono::seconds(10));
std::unique_ptr<Feed> arrivalFeed(const FeedOptions& from, const std::string& position,
                                  const evarchive::Say& say);
std::unique_ptr<Feed> logFeed(const std::string& path, const std::string& position);
std::unique_ptr<Feed> bladeFeed(int key, U32_t endpoint, const std::string& position);

} // namespace evbridge

#endif
