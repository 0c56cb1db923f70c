/**
 * @file
 * Where events come from, and how far they have been handed on.
 */
#ifndef EVBRIDGE_FEED_H
#define EVBRIDGE_FEED_H

#include "say.h"
#include "sources/event.h"

#include <memory>
#include <string>
#include <vector>

namespace evbridge {

using sources::Bytes;

/** Events as images: header and data. */
using Images = std::vector<Bytes>;

/** One source. What more() gives is given again, by this process or the next one, until taken() was
 * called and position() is kept. */
class Feed {
  public:
    virtual ~Feed() = default;

    /** Up to @p most events that were not handed on yet, in the order of their log. Throws
     * std::exception when the source cannot be read now. */
    virtual Images more(std::size_t most) = 0;

    /** What the last more() gave has been handed on. */
    virtual void taken() = 0;

    /** How far, as lines. */
    virtual std::string position() const = 0;
};

/**
 * @param from     an archive (a file or postgresql://...) or a log file
 * @param position what position() of an earlier feed of this place gave, "" for none
 * Throws std::runtime_error when there is nothing of the kind, or the position is none.
 */
std::unique_ptr<Feed> openFeed(const std::string& from, const std::string& position,
                               const evarchive::Say& say);

} // namespace evbridge

#endif
