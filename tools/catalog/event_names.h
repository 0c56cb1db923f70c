/**
 * @file
 * The names of event ids: those of the blade's enumerators, and those that catalogues give.
 */
#ifndef CATALOG_EVENT_NAMES_H
#define CATALOG_EVENT_NAMES_H

#include "emp_mesgs.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace catalog {

/** For an id of whatever version. */
constexpr U32_t ANY_VERSION = UINT8_MAX + 1;

/** The catalogue's name for this very version, else the enumerator's, else the catalogue's for any
 * version; fit to be shown. Empty: it has none. */
std::string_view eventName(U32_t source, U32_t id, U32_t version = ANY_VERSION);
std::string_view eventName(const EmpEvLogHeader_t& header);

/** All names that ids of a source have, each once. */
std::vector<std::string> eventNames(U32_t source);

/** Whether that is its name, in any case. */
bool hasName(const EmpEvLogHeader_t& header, const std::string& name);

/** The name that eventName() gives for what is meant by one: in any case, or as an enumerator.
 * @return nothing when ids of no source have that name */
std::optional<std::string> knownName(const std::string& name);

/** The (first) id of a source that bears a name, in any case. */
std::optional<U32_t> eventIdOf(U32_t source, const std::string& name);

} // namespace catalog

#endif
