/**
 * @file
 * The command line.
 */
#ifndef EVARCHIVER_OPTIONS_H
#define EVARCHIVER_OPTIONS_H

#include "endpoint_text.h"
#include "lane.h"

#include <chrono>
#include <optional>
#include <variant>

namespace evarchive {

/** How the archiver behaves badly when a test asks for it. */
struct Misbehaviour {
    bool refuse = false;               ///< take no connection: they are refused
    bool neverRead = false;            ///< take connections, read nothing
    U64_t closeAfter = 0;              ///< close a link after so many messages; 0: never
    std::chrono::milliseconds late{0}; ///< wait before each answer
    bool twice = false;                ///< send each answer twice
    bool unknownHandle = false;        ///< answer with a handle that nobody asked with
    bool wrongVersion = false;         ///< answer with header version 2
    U16_t onlyType = 0;                ///< misbehave in answers of this type only; 0: in all
};

/** What was asked for. */
struct Options {
    asio::ip::tcp::endpoint listen;
    std::string database;
    LaneSettings lane;
    std::vector<std::string> allow;      ///< networks whose blades are served; empty: all
    U32_t lanes = 0;                     ///< 0: as the engine is best used
    U32_t connectionLimit = 0;           ///< links at a time; 0: DEFAULT_LINKS, or what there are
                                         ///< descriptors for
    U32_t hostLimit = 0;                 ///< links at a time from one address; 0: no limit
    U32_t handshakeRate = 8000;          ///< links taken a second
    U32_t answerLimit = 0;               ///< longest answer in bytes; 0: as the link's segments
    std::chrono::seconds firstWait{10};  ///< how long a connection may say nothing at first
    std::chrono::seconds answerWait{10}; ///< how long an answer may wait for the archive
    U64_t unsentLimit = 64 * 1'048'576;  ///< bytes of answers that wait, for all links together
    U64_t spool = 256 * 1'048'576;       ///< bytes of events that wait for the archive
    std::optional<asio::ip::tcp::endpoint> metrics; ///< where metrics are served
    std::chrono::seconds progress{10};              ///< between two progress lines; 0: none
    int receiveBuffer = 0;                          ///< SO_RCVBUF in bytes; 0: the system's choice
    int segmentSize = 0;                            ///< TCP_MAXSEG in bytes; 0: the system's choice
    Misbehaviour misbehaviour;
};

/** Links at a time where nothing else is asked for. */
constexpr U32_t DEFAULT_LINKS = 10'000;

/** @return what was asked for, or the status to exit with, everything being said */
std::variant<Options, int> parseOptions(int argc, const char* const* argv);

} // namespace evarchive

#endif
