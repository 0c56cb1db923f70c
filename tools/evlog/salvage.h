/**
 * @file
 * Puts a log together from what can be read of several files: a damaged log, its debugging copy,
 * older copies, alternate event files.
 *
 * Events keep their ids and stand in the order of their ages. The result is a log that has not gone
 * round its end: its ids have no holes, since the event manager could not work with any. The id of
 * an event that is lost is taken by a mark, an event of the event manager (id 4, version 2).
 */
#ifndef EVLOG_SALVAGE_H
#define EVLOG_SALVAGE_H

#include "evlog/evlog.h"

#include <vector>

/** Version of event id 4 of source 27 that stands for a lost event; it has no data. */
constexpr U8_t EVLOG_LOST_ID_VERSION = 2;

/** A file that events are wanted of. */
struct EvlogSource_t {
    std::span<const U8_t> bytes; ///< the file, at most EVLOG_REACHABLE; must outlive the call
    bool waiting = false; ///< an alternate event file: one event, which has no id yet and gets one
};

/** Why a readable event is not in the result. */
enum EVLOG_LEFT_e : U8_t {
    EVLOG_E_LEFT_CONFLICT,   ///< an earlier source has other bytes under its id
    EVLOG_E_LEFT_GENERATION, ///< its log has begun its ids anew, or they are too far from the rest
    EVLOG_E_LEFT_FOREIGN,    ///< of another enclosure or slot
    EVLOG_E_LEFT_LONG,       ///< longer than any message: asking for it would end the event manager
    EVLOG_E_LEFT_MARKER,     ///< source 27 and id 1: readers take it for unused space
    EVLOG_E_LEFT_OLDEST,     ///< no room: the oldest ones give way
    EVLOG_E_LEFT_DAMAGED,    ///< an alternate event file that holds no valid record
    EVLOG_E_LEFT_REASONS,    ///< number of reasons
};

/** One line of English for a reason, without a full stop. */
const char* evlogLeftText(EVLOG_LEFT_e reason);

/** A readable event that was left out. */
struct EvlogLeft_t {
    size_t source = 0; ///< number of the source, from 0
    U32_t offset = 0;  ///< of its record in the source
    U32_t sequenceId = 0;
    EVLOG_LEFT_e reason = EVLOG_E_LEFT_CONFLICT;
};

/** How events are put together. */
struct EvlogSalvageRules_t {
    const EvlogIdentity_t* identity = nullptr; ///< whose log it becomes; null: that which most
                                               ///< events of the first log name
    bool renumber = false; ///< events of later generations get new ids behind the oldest generation
};

/** What came of it. */
struct EvlogSalvage_t {
    std::vector<U8_t> bytes;       ///< the new file, 1,600,000 bytes; empty when nothing was saved
    U32_t saved = 0;               ///< events in it, marks left out
    U32_t marks = 0;               ///< ids of lost events
    U32_t renumbered = 0;          ///< events among the saved that got a new id
    U32_t repeated = 0;            ///< events that several sources had alike
    U32_t firstId = 0;             ///< oldest id in it, marks included
    U32_t lastId = 0;              ///< newest id in it
    EvlogIdentity_t identity = {}; ///< whose log it is
    std::vector<EvlogLeft_t> left; ///< readable, not in it
};

/**
 * Puts a log together. Of an event that several sources hold under one id the first source's
 * counts. Work and memory are linear in the size of the sources, but for sorting.
 */
EvlogSalvage_t evlogSalvage(std::span<const EvlogSource_t> sources,
                            const EvlogSalvageRules_t& rules);

#endif
