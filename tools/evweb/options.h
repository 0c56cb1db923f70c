/**
 * @file
 * The command line.
 */
#ifndef EVWEB_OPTIONS_H
#define EVWEB_OPTIONS_H

#include "server.h"
#include "site.h"

#include <variant>

namespace evweb {

struct Options {
    std::string database;
    ListenPlace listen;
    SiteSettings site;
    unsigned connections = 64;
    unsigned perHost = 0;                     ///< of them from one address
    std::chrono::milliseconds patience{2000}; ///< of a question to the archive
};

/** @return what was asked for, or the status to exit with, everything being said */
std::variant<Options, int> parseOptions(int argc, const char* const* argv);

} // namespace evweb

#endif
