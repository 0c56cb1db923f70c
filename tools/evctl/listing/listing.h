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

#include <chrono>
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

/** Lets the help of -r and --around say that a reader without an end refuses them, and that of -n
 * that it begins with the last ones. */
void describeWithoutEnd(CLI::App& command);

/** Adds -n and -r. */
void addOrderOptions(CLI::App& command, ListingOptions& options);

/** Adds --cursor, --after-cursor, --show-cursor and --cursor-file. */
void addCursorOptions(CLI::App& command, ListingOptions& options);

/** Says each on standard error. */
void sayLines(const std::vector<std::string>& lines);

/** Leaves a cursor in a file: all of it or nothing, also when the power goes, since a reader that
 * is stopped meanwhile must not begin anew. Throws. */
void writeCursorFile(const std::string& name, const Cursor& cursor);

/** The cursor to begin behind: of the option, else of the file, if there is one. Throws when the
 * file holds none. */
std::optional<Cursor> startCursor(const ListingOptions& options);

/** The end of a reading: shows the cursor and leaves it in its file, as the options want.
 * @return whether all could be shown, as far as anybody wanted to see it */
bool tellCursor(const ListingOptions& options, const Cursor& cursor, EventPrinter& printer,
                Pager& pager);

/** Throws CLI::ValidationError for options that need an end, for readers that have none. */
void refuseWithoutEnd(const ListingOptions& options);

/** Keeps a cursor in its file while a reading goes on that has no end: each second in which it has
 * moved. */
class CursorKeeper {
  public:
    /** @param path empty: does nothing */
    explicit CursorKeeper(const std::string& path) : path_(path) {}

    /** The cursor has moved. Throws as writeCursorFile(). */
    void move(const Cursor& cursor);

    /** When the file must be written; nothing: it is as new as the cursor. */
    std::optional<std::chrono::steady_clock::time_point> due() const;

    /** Writes the file, unless it is as new. Throws likewise. */
    void keep(const Cursor& cursor);

  private:
    std::string path_;
    bool isKept_ = true;
    std::chrono::steady_clock::time_point kept_;
};

/** What lies behind the cursor to begin behind, for sources, through which it looks; it says on
 * standard error what cannot be known. Nothing: there is no cursor. */
std::optional<Resume> resumeOf(const ListingOptions& options, const sources::Sources& sources);

/** Prints those of the events that are given to it, oldest first, which the options want. */
class Listing {
  public:
    /**
     * @param options must outlive it
     * @param several events of several logs come
     * @param endless  goLive() will be called: there is no pager
     */
    Listing(const ListingOptions& options, bool several, bool endless = false);

    /** The next event; its source, or its storage, outlives the listing. @return false when no more
     * are wanted, or nobody reads any more */
    bool take(sources::Event event);

    /** What is there has come; shows it, and from now on what comes. @return as take() */
    bool goLive();

    /** When keepCursor() is due, while it is live. */
    std::optional<std::chrono::steady_clock::time_point> cursorDue() const { return keeper_.due(); }
    void keepCursor() { keeper_.keep(cursor_); }

    /** All have come. @return the exit status */
    int finish();

    U64_t taken() const { return taken_; } ///< events that the filters let through

    EventPrinter& printer() { return printer_; }

  private:
    bool isAnchor(const sources::Event& event) const;
    bool isFull() const { return options_.first && !options_.around && taken_ >= *options_.first; }
    bool place(sources::Event event);
    bool show(const sources::Event& event);
    void keepNeighbours();

    const ListingOptions& options_;
    Pager pager_;
    EventPrinter printer_;
    bool waits_; // with what is to be shown, for what comes behind it
    bool live_ = false;
    CursorKeeper keeper_;
    std::deque<sources::Event> kept_;
    U64_t taken_ = 0; // that the filter let through
    bool foundAnchor_ = true;
    Cursor cursor_;
};

/** Lists the events of sources, merged by time, and says what is wrong in them on standard error.
 * @param several they are of several logs, which the lines tell apart
 * @param ifNone  when no event is there that is wanted: a finding, and said. Empty: it is none
 * @return the exit status */
int listSources(sources::Sources sources, const ListingOptions& options, bool several,
                const std::string& ifNone = "");

} // namespace evctl

#endif
