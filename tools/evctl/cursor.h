/**
 * @file
 * Cursors: a text that says how far logs have been read, and what lies behind it.
 *
 * A cursor has a mark for each log (blade and slot), so that it holds for several logs at once, and
 * in whatever place they are met again: file, archive or event manager. It survives restarts, logs
 * that begin again under the same name, and those that have gone round in the meantime.
 * Alternate event log files are in no order and go away: a cursor says nothing of them.
 */
#ifndef EVCTL_CURSOR_H
#define EVCTL_CURSOR_H

#include "sources/source.h"

#include <map>
#include <optional>
#include <string>

namespace evctl {

/** A number for the log that an event says it belongs to: enclosure, blade and slot.
 * @param isCopy the event is in a damaged copy, which is another log than the one it is of */
U64_t logNumber(const EmpEvLogHeader_t& header, bool isCopy);

/** The last event that was read of a log. */
struct LogMark {
    U32_t instance = 0;
    U32_t sequenceId = 0;
    U32_t time = 0;

    bool operator==(const LogMark&) const = default;
};

LogMark markOf(const EmpEvLogHeader_t& header);

class Cursor {
  public:
    /** @return nothing for a text that is none */
    static std::optional<Cursor> parse(const std::string& text);

    /** "c1:LOG.INSTANCE.ID.TIME", more of them behind commas; hexadecimal. */
    std::string text() const;

    /** An event has been read. */
    void moveTo(const sources::Event& event);

    const LogMark* find(U64_t log) const;
    bool empty() const { return marks_.empty(); }

  private:
    std::map<U64_t, LogMark> marks_;
};

/** Which events of sources lie behind a cursor. */
class Resume {
  public:
    /** @param inclusive the events that the cursor names are wanted too */
    Resume(Cursor cursor, bool inclusive) : cursor_(std::move(cursor)), inclusive_(inclusive) {}

    /** Looks through a source, and sets it back to its start. */
    void look(sources::Source& source);

    /** Whether an event of a source that was looked through is wanted. */
    bool wants(const sources::Event& event) const;

  private:
    /** What was seen of a log that the cursor knows. */
    struct Seen {
        bool mark = false;   ///< the event of the mark
        bool other = false;  ///< another event in its place
        bool behind = false; ///< an event behind it, of the same instance
        U32_t newest = 0;    ///< the latest time

        /** Whether the log has begun again since, so that all of it is new. */
        bool hasBegunAgain(const LogMark& mark) const;
    };
    using Place = std::pair<const sources::Origin*, U64_t>;

    const LogMark* markFor(const sources::Event& event, U64_t log) const;

    Cursor cursor_;
    bool inclusive_;
    std::map<Place, Seen> seen_;
};

} // namespace evctl

#endif
