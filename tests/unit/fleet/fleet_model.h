/**
 * @file
 * One blade, several archivers and one shared archive, in all orders in which things can happen: an
 * event is logged, sent, looked up, committed; the link is cut and another archiver reached, while
 * the first one still holds events; the log is rebuilt; a commit's outcome stays unknown; an
 * archiver sheds a link; the server fails and forgets the last claims. What becomes of an event is
 * asked of the product's own rules.
 *
 * Time is cut where a real archiver can be overtaken: between the look at what the archive holds
 * (plan) and the transaction that files (commit).
 */
#ifndef FLEET_MODEL_H
#define FLEET_MODEL_H

#include "fixed_width.h"

#include <array>
#include <string>

namespace fleet {

/** Most ids of a log, one more than are logged while searching: the last one ends a history. */
constexpr unsigned MOST_IDS = 5;
constexpr unsigned MOST_LINKS = 5;
constexpr unsigned MOST_GENERATIONS = 5;

/** How far a search goes. */
struct Bounds {
    unsigned links = 3; ///< connections, all to different archivers
    unsigned ids = 3;   ///< events of a log
    unsigned rebuilds = 1;
    unsigned silentLinks = 0;    ///< how many of the links may send no status request
    unsigned unknownCommits = 0; ///< commits whose outcome the archiver does not learn
    unsigned sheddings = 0;
    unsigned crashes = 0; ///< of the server, which forgets the last claims, but no commit
};

/** What an archiver does with the events of a link whose blade has opened a later one. */
enum class Late : U8_t {
    FILE_AND_OPEN, ///< as if nothing had happened: there is no fence
    FILE,          ///< file, but open no generation
    DROP,          ///< forget them
    SET_ASIDE,     ///< look whether they are held, else set them aside
};

/** The rules; a search with one of them left out shows what it is for. */
struct Rules {
    Late late = Late::SET_ASIDE;
    /** An archiver that files without a claim tells the owner, who then looks again. */
    bool tellsOwner = true;
    /** What comes on a link without a status request is doubtful: never claimed, and it makes room.
     */
    bool doubtsSilentLinks = true;
    /** What comes without a claim is compared again in the transaction that files it. */
    bool looksAgain = true;
    /** A link that finds no room is closed and all its waiting events are dropped; else only the
     * newest one is. */
    bool shedsWholeLinks = true;
    /** After an unknown outcome the batch is done again; else it is taken for done. */
    bool repeatsUnknown = true;
    /** That the blade shall send its log again is told with the repeat, too. */
    bool remembersResend = true;
    /** A status answer tells of committed events only. */
    bool claimsCommitted = true;
    /** A server that fails forgets no commit, and no claim that came before one. */
    bool keepsOrder = true;
};

/** What can be wrong in the end. */
enum Fault : unsigned {
    NOT_THE_BLADES_LOG = 1, ///< the newest generation is not the blade's log
    LOST = 2,               ///< an event that came is nowhere
    TWICE = 4,              ///< an event is held in two generations
    TWO_UNDER_ONE_ID = 8,   ///< two events of a generation have the same id
    TOO_MANY_GENERATIONS = 16,
    ENDLESS = 32, ///< the blade never gets to its log's end
};

/** "lost, twice" or "nothing". */
std::string nameOf(unsigned faults);

/** What a search found. */
struct Finding {
    std::size_t states = 0;
    unsigned faults = 0;
    std::string history; ///< how the first fault came about, one step after the other
};

/** Goes through all histories. @param stopAtFault ends at the first fault */
Finding search(const Rules& rules, const Bounds& bounds, bool stopAtFault = false);

} // namespace fleet

#endif
