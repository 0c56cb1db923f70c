/**
 * @file
 * What stands in an address, as questions to an archive. The filters are those of all readers, and
 * are read by the same code: what is wrong is said in the same words.
 */
#ifndef EVWEB_QUERY_H
#define EVWEB_QUERY_H

#include "http.h"
#include "view.h"

namespace evweb {

constexpr U32_t MOST_ROWS = 500;     ///< of a page
constexpr U32_t MOST_BUCKETS = 400;  ///< of a timeline
constexpr std::size_t LONGEST = 512; ///< bytes of a parameter's value

/** Names that filters of events have: type, source, category, id, seq, since, until, enclosure,
 * blade, slot, instance; and text, log, generation. */
bool isSearchParameter(const std::string& name);

/** Reads the parameters of a search; those without a value are left out. Of --grep there is only
 * "text", a text that is held: the time that an expression takes has no bound.
 * @param more names of further parameters, which the caller reads. Throws Refusal */
Search searchOf(const Parameters& parameters, const std::vector<std::string>& more = {});

/** Throws Refusal for names other than these, and for values that are too long, hold a NUL or are
 * no UTF-8. */
void requireKnown(const Parameters& parameters, const std::vector<std::string>& names);

/** A parameter's value, empty when it is not there. Throws Refusal when it is there twice. */
std::string valueOf(const Parameters& parameters, const std::string& name);

/** A part of a text or name, as texts and names are shown, with small letters of ASCII. */
std::string wordsOf(const Parameters& parameters, const std::string& name);

/** A whole number; nothing when it is not there. Throws Refusal. */
std::optional<S64_t> numberOf(const Parameters& parameters, const std::string& name, S64_t least,
                              S64_t most);

/** A place to go on from; nothing when there is none. Throws Refusal. */
std::optional<Position> positionOf(const Parameters& parameters, const std::string& name);

/** The buckets that a search's time is divided into: some @p buckets at most, as wide as people
 * count: 1, 2, 5, 10, 15, 30 seconds or minutes, 1, 2, 3, 6, 12 hours, days. They cover the whole
 * time. Throws Refusal when its end lies before its beginning. */
Timeline bucketsOf(U32_t since, U32_t until, U32_t buckets);

} // namespace evweb

#endif
