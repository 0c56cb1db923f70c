/**
 * @file
 * From a feed to a sink, with the position kept behind it.
 */
#ifndef EVBRIDGE_BRIDGE_H
#define EVBRIDGE_BRIDGE_H

#include "options.h"
#include "say.h"

namespace evbridge {

/** Until SIGINT or SIGTERM, or as Options::once says. Throws when the source or the cursor cannot
 * be used at the start, or the cursor cannot be kept. @return the exit status */
int runBridge(const Options& options, const evarchive::Say& say);

} // namespace evbridge

#endif
