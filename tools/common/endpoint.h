/**
 * @file
 * The sockets of the message switch: one for each endpoint, all in one directory.
 */
#ifndef TOOLS_ENDPOINT_H
#define TOOLS_ENDPOINT_H

#include "mmsg.h"

#include <string>

namespace tools {

constexpr U32_t ENDPOINT_COUNT = MMSG_E_MAX_DEFINED_EPIDS;

/** Longest path of a Unix socket: what an address holds, without the terminator. */
constexpr size_t SOCKET_PATH_MAX = 107;

/**
 * Name of an endpoint's socket: its enumerator without "MMSG_E_EPID_" and a final "MP", in lower
 * case: "eventlog" for 27, "startup" for 18.
 * @param endpoint 0 to 33 @return the name, empty for any other number
 */
std::string endpointSocketName(U32_t endpoint);

/** Path of an endpoint's socket: @p directory + "/" + name. */
std::string endpointSocketPath(const std::string& directory, U32_t endpoint);

} // namespace tools

#endif
