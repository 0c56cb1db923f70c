/**
 * @file
 * The command line.
 */
#ifndef EVGATE_OPTIONS_H
#define EVGATE_OPTIONS_H

#include "endpoint_text.h"
#include "tls.h"

#include <chrono>
#include <variant>

namespace evgate {

/** Which end of the gate this process is. */
enum class GateEnd : U8_t {
    SITE,    ///< takes blades, speaks TLS to the archive's end
    ARCHIVE, ///< takes TLS, speaks to the archiver
};

/** What was asked for. */
struct Options {
    GateEnd end = GateEnd::SITE;
    asio::ip::tcp::endpoint listen;
    asio::ip::tcp::endpoint to;
    TlsFiles files;
    std::string name;               ///< site: what the other end's certificate must be for
    std::string map;                ///< archive: the file of rights
    std::vector<std::string> allow; ///< networks that may connect; empty: all
    U32_t connectionLimit = 0;      ///< links at a time; 0: DEFAULT_LINKS, or as descriptors allow
    U32_t hostLimit = 0;            ///< links at a time from one address; 0: no limit
    U32_t handshakeRate = 500;      ///< links taken a second
    U32_t answerLimit = 0;          ///< site: longest answer in bytes; 0: as the link's segments
    std::chrono::seconds wait{10};  ///< how long a link may take to come to stand
    int segmentSize = 0;            ///< site: TCP_MAXSEG of blades' connections; 0: the system's
};

/** Links at a time where nothing else is asked for. */
constexpr U32_t DEFAULT_LINKS = 10'000;

/** @return what was asked for, or the status to exit with, everything being said */
std::variant<Options, int> parseOptions(int argc, const char* const* argv);

} // namespace evgate

#endif
