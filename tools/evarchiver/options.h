/**
 * @file
 * The command line.
 */
#ifndef EVARCHIVER_OPTIONS_H
#define EVARCHIVER_OPTIONS_H

#include "archive.h"

#include <asio/ip/tcp.hpp>
#include <chrono>
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
    ArchiveSettings archive;
    U32_t connectionLimit = 1024;
    U32_t answerLimit = 1'048'576;     ///< bytes of answers that wait for one link, at most
    std::chrono::seconds progress{10}; ///< between two progress lines; 0: none
    int receiveBuffer = 0;             ///< SO_RCVBUF in bytes; 0: the system's choice
    int segmentSize = 0;               ///< TCP_MAXSEG in bytes; 0: the system's choice
    Misbehaviour misbehaviour;
};

/** "4711", "192.168.0.1:4711" or "[::1]:4711"; a port alone means every IPv4 address. Throws
 * std::invalid_argument. */
asio::ip::tcp::endpoint endpointOf(const std::string& text);

/** @return what was asked for, or the status to exit with, everything being said */
std::variant<Options, int> parseOptions(int argc, const char* const* argv);

} // namespace evarchive

#endif
