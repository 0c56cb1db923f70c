/**
 * @file
 * Which engine an archive is kept by.
 */
#ifndef EVARCHIVER_ENGINE_H
#define EVARCHIVER_ENGINE_H

#include "store.h"

#include <functional>
#include <memory>
#include <string>

namespace evarchive {

/** An engine with an archive chosen, and how its lanes come to it. */
struct Engine {
    U32_t usualLanes = 1; ///< where the operator does not say

    /** A connection to the archive, for one lane; called once for each, before they begin. Throws
     * StoreError when the archive is no good; one that is merely away may show later. */
    std::function<std::unique_ptr<Store>()> connect;

    /** Whether lanes see to the bounds of what is kept; else the engine does by its own means. */
    bool isKeptByLanes = true;
};

/** @param database what --db says. Opens nothing yet. */
Engine engineOf(const std::string& database);

} // namespace evarchive

#endif
