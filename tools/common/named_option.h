/**
 * @file
 * Options that take a name or a number.
 */
#ifndef COMMON_NAMED_OPTION_H
#define COMMON_NAMED_OPTION_H

#include "common/cli_fwd.h"
#include "common/names.h"

#include <string>
#include <vector>

namespace tools {

/** Adds an option that takes a name of @p names or a number of at most @p max. */
CLI::Option* addNamedOption(CLI::App& command, const std::string& flags, U32_t& value,
                            const NameTable& names, U32_t max, const std::string& description);

/** Throws CLI::ValidationError: @p text is neither one of these names nor a number up to @p max. */
[[noreturn]] void refuseName(const std::string& option, const std::string& text,
                             const std::vector<std::string>& known, U32_t max);

/** A name or number as addNamedOption() takes it; throws CLI::ValidationError for anything else. */
U32_t parseNamed(const std::string& option, const std::string& text, const NameTable& names,
                 U32_t max);

} // namespace tools

#endif
