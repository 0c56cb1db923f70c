/**
 * @file
 * What an event says: in the words of the catalogue, else its data as text, else as digits.
 */
#ifndef CATALOG_EVENT_TEXT_H
#define CATALOG_EVENT_TEXT_H

#include "catalog/catalog.h"
#include "sources/event.h"

#include <optional>
#include <string>

namespace catalog {

/** The catalogue of this program and site, loaded with the first call, which says on standard error
 * what is wrong in it. */
const Catalog& knownEvents();

/** The catalogue's entry for an event, or nullptr. */
const Entry* entryOf(const sources::EventView& event);

/** The catalogue's text, else data that is text. @return nothing for other data and for none */
std::optional<std::string> eventText(const sources::EventView& event);

/** The last column of a listing: eventText(), else the first bytes as hexadecimal digits. Empty for
 * an event without data that nobody knows. */
std::string textColumn(const sources::EventView& event);

/** What an operator may do about an event: for a bug-check the row of its message on the operators'
 * page, else what the catalogue says. Empty: nothing is known. */
std::string adviceOf(const sources::EventView& event);

/** Name and value of every field that the catalogue knows, a line each. */
std::string fieldLines(const sources::EventView& event);

} // namespace catalog

#endif
