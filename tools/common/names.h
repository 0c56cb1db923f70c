/**
 * @file
 * The names of the blade's enumerators: one table each for dumps, command lines and JSON.
 *
 * Every row has the full enumerator ("MMSG_E_EPID_STARTUPMP") and a short lower-case form
 * ("startup") that is unique within its table.
 */
#ifndef TOOLS_NAMES_H
#define TOOLS_NAMES_H

#include "fixed_width.h"

#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace tools {

/** A row of a table: the values @p first to @p last (most rows: one value) bear one name. */
struct EnumName {
    U32_t first;
    U32_t last;
    std::string_view full;  ///< the enumerator
    std::string_view brief; ///< short form, lower case
};

/** A table of enumerator names, ascending by value. */
class NameTable {
  public:
    constexpr explicit NameTable(std::span<const EnumName> rows) : rows_(rows) {}

    /** @return the row that covers @p value, or nullptr */
    const EnumName* find(U32_t value) const;

    /** @return the short form, or the decimal number of a value without a name */
    std::string brief(U32_t value) const;

    /** @return the enumerator, or the decimal number of a value without a name */
    std::string full(U32_t value) const;

    /** @param name short form or enumerator, in any case @return the (first) value of that name */
    std::optional<U32_t> value(std::string_view name) const;

    /** value(), or @p text itself as a number (decimal, or hexadecimal with 0x) of at most @p max
     */
    std::optional<U32_t> valueOrNumber(std::string_view text, U32_t max) const;

    std::span<const EnumName> rows() const { return rows_; }

  private:
    std::span<const EnumName> rows_;
};

extern const NameTable endpointNames;           ///< MMSG_EPID_e, aliases left out
extern const NameTable protocolNames;           ///< MMSG_PROTOCOL_e
extern const NameTable messageTypeNames;        ///< EMP_MESGS_TYPE_e: types of protocol 8
extern const NameTable startupMessageTypeNames; ///< SUS_MMSG_TYPE_e: types of protocol 12
extern const NameTable eventTypeNames;          ///< EMP_TYPE_e
extern const NameTable categoryNames;           ///< EMP_CATEGORY_e
extern const NameTable eventManagerEventNames;  ///< EMP_EV_ID: event ids of source 27
extern const NameTable startupEventNames;       ///< STARTUP_EM_msg_type_e: event ids of source 18
extern const NameTable inquiryTypeNames;        ///< EMP_INQUIRY_TYPE_e
extern const NameTable responseNames;           ///< EMP_RESPONSE_e

/** @return the table of a source's event ids, empty for a source whose ids have no names */
const NameTable& eventNamesOf(U32_t source);

/** @return the table of a protocol's message types, empty for one whose types have no names */
const NameTable& messageTypeNamesOf(U32_t protocol);

/** A whole text as an unsigned number, decimal or hexadecimal with 0x. @return nothing unless it is
 * one of at most @p max */
std::optional<U32_t> parseNumber(std::string_view text, U32_t max);

} // namespace tools

#endif
