/**
 * @file
 * Cursors: a text that says how far logs have been read, and what lies behind it.
 *
 * A cursor has a mark for each log (blade and slot), so that it holds for several logs at once, and
 * in whatever place they are met again: file, archive or event manager. It survives restarts, logs
 * that begin again under the same name, and those that have gone round in the meantime.
 * Among logs a cursor says nothing of alternate event log files, which are in no order and go away;
 * the one of a listing of such files has a mark for each of them.
 */
#ifndef EVCTL_CURSOR_H
#define EVCTL_CURSOR_H

#include "sources/source.h"

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

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

/** A number for a file, by its name and the time of its last change in seconds since 1970. */
U64_t fileNumber(const std::string& name, S64_t modified);

class Cursor {
  public:
    /** @return nothing for a text that is none */
    static std::optional<Cursor> parse(const std::string& text);

    /** "c1:LOG.INSTANCE.ID.TIME", more of them behind commas; hexadecimal. */
    std::string text() const;

    /** An event has been read. */
    void moveTo(const sources::Event& event);

    /** A file has been listed. */
    void addFile(U64_t number) { marks_[number] = {}; }

    /** The mark of a log, or of a file, by its number; nullptr when there is none. */
    const LogMark* find(U64_t log) const;
    bool empty() const { return marks_.empty(); }

  private:
    std::map<U64_t, LogMark> marks_;
};

/** What is said of a mark whose event is not where it is looked for, and what is shown then. */
std::string lostMarkText(const LogMark& mark, const std::string& shown);

/**
 * Which events of sources lie behind a cursor.
 *
 * Where the event of a mark is there, it is what its log has numbered behind it: also when the ids
 * have passed 2^32, and whatever instances and times are. Where it is not, no event is passed over
 * that may be new: notes() says what is shown instead.
 */
class Resume {
  public:
    /** @param inclusive the events that the cursor names are wanted too */
    Resume(Cursor cursor, bool inclusive) : cursor_(std::move(cursor)), inclusive_(inclusive) {}

    /** Looks through a source, and sets it back to its start. */
    void look(sources::Source& source);

    /** Looks at an event of a source. */
    void look(const sources::Event& event);

    /** Whether an event of a source that was looked through is wanted. */
    bool wants(const sources::Event& event) const;

    /** What cannot be known of sources that were looked through: a line each, with the source's
     * name in front. */
    std::vector<std::string> notes() const;

  private:
    /** What was seen of a log that the cursor knows. */
    struct Seen {
        std::optional<U64_t> mark; ///< the event of the mark is there: its position
        bool other = false;        ///< another event in its place
        bool newer = false;        ///< one that must be newer
        bool rising = false;       ///< likewise, when instances only rise
        U32_t newest = 0;          ///< the latest time
    };
    enum class Standing {
        FOUND,    ///< the mark's event is there
        GONE,     ///< it is not, but newer ones are
        REPLACED, ///< another event stands in its place
        OLDER,    ///< an earlier state of a log that is there, too
        UNKNOWN,  ///< nothing of what is there can be placed
    };
    using Place = std::pair<const sources::Origin*, U64_t>;

    const LogMark* markFor(const sources::Event& event, U64_t log) const;
    Standing standingOf(const Place& place, const Seen& seen) const;

    Cursor cursor_;
    bool inclusive_;
    std::map<Place, Seen> seen_;
    std::set<U64_t> found_; ///< logs of which some source has the mark's event
};

} // namespace evctl

#endif
