/**
 * @file
 * Listings: what all readers do with the events of their sources, and the options for it.
 */
#ifndef EVCTL_LISTING_H
#define EVCTL_LISTING_H

#include "evctl/filters/cursor.h"
#include "evctl/filters/event_filter.h"
#include "evctl/views/event_output.h"
#include "evctl/views/pager.h"
#include "sources/source.h"

#include <deque>
#include <optional>
#include <string>

namespace evctl {

/** The event, or the bug-check, whose neighbours are wanted. */
struct Around {
    std::optional<U32_t> sequenceId; ///< nothing: the newest bug-check
};

struct ListingOptions {
    EventFilter filter;
    OutputOptions output;
    std::optional<U64_t> last;  ///< only so many; with around: so many on each side
    std::optional<U64_t> first; ///< only so many of the first ones
    bool reverse = false;
    std::optional<Around> around;
    std::optional<Cursor> cursor;
    bool inclusive = false; ///< the event of the cursor is listed too
    bool showCursor = false;
    std::string cursorFile; ///< empty: none
    bool noPager = false;
};

/** Adds all options of a listing: those of filters and of the output, and -n, -r, --around, those
 * about cursors, and --no-pager. */
void addListingOptions(CLI::App& command, ListingOptions& options);

/** Adds -n and -r. */
void addOrderOptions(CLI::App& command, ListingOptions& options);

/** Adds --cursor, --after-cursor, --show-cursor and --cursor-file. */
void addCursorOptions(CLI::App& command, ListingOptions& options);

/** Says each on standard error. */
void sayLines(const std::vector<std::string>& lines);

/** Leaves a cursor in a file: all of it or nothing, also when the power goes, since a reader that
 * is stopped meanwhile must not begin anew. Throws. */
void writeCursorFile(const std::string& path, const Cursor& cursor);

/** The cursor to begin behind: of the option, else of the file, if there is one. Throws when the
 * file holds none. */
std::optional<Cursor> startCursor(const ListingOptions& options);

/** The end of a reading: shows the cursor and leaves it in its file, as the options want.
 * @return whether all could be shown, as far as anybody wanted to see it */
bool tellCursor(const ListingOptions& options, const Cursor& cursor, EventPrinter& printer,
                Pager& pager);

/** What lies behind the cursor to begin behind, for sources, through which it looks; it says on
 * standard error what cannot be known. Nothing: there is no cursor. */
std::optional<Resume> resumeOf(const ListingOptions& options, const sources::Sources& sources);

/** Prints those of the events that are given to it, oldest first, which the options want. */
class Listing {
  public:
    /**
     * @param options must outlive it
     * @param several events of several logs come
     * @param live    each event is printed as it comes, if it can be
     */
    Listing(const ListingOptions& options, bool several, bool live = false);

    /** The next event; its source, or its storage, outlives the listing. @return false when nobody
     * reads any more */
    bool take(sources::Event event);

    /** All have come. @return the exit status */
    int finish();

    EventPrinter& printer() { return printer_; }

  private:
    bool isAnchor(const sources::Event& event) const;
    void keepNeighbours();

    const ListingOptions& options_;
    Pager pager_;
    EventPrinter printer_;
    bool live_;
    std::deque<sources::Event> kept_;
    U64_t taken_ = 0; // that the filter let through
    bool foundAnchor_ = true;
    Cursor cursor_;
};

/** Lists the events of sources, merged by time, and says what is wrong in them on standard error.
 * @param several they are of several logs, which the lines tell apart
 * @return the exit status */
int listSources(sources::Sources sources, const ListingOptions& options, bool several);

} // namespace evctl

#endif
