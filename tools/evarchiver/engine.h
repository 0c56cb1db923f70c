/**
 * @file
 * Which engine an archive is kept by.
 */
#ifndef EVARCHIVER_ENGINE_H
#define EVARCHIVER_ENGINE_H

#include "reader.h"

#include <functional>
#include <memory>
#include <string>

namespace evarchive {

/** An archive that is spread over several servers: each log belongs to one of them. */
struct Spread {
    U32_t nodes = 1;
    /** A connection to one of them, from 0 on; else as Engine::connect. */
    std::function<std::unique_ptr<Store>(U32_t node)> connect;
    std::function<U32_t(const SeriesKey&)> nodeOf;
};

/** An engine with an archive chosen, and how its lanes come to it. */
struct Engine {
    U32_t usualLanes = 1; ///< of a server, where the operator does not say

    /** A connection to the archive, for one lane; called once for each, before they begin. Throws
     * StoreError when the archive is no good; one that is merely away may show later. */
    std::function<std::unique_ptr<Store>()> connect;

    std::optional<Spread> spread = {};

    /** Whether lanes see to the bounds of what is kept; else the engine does by its own means. */
    bool isKeptByLanes = true;
};

/** Whether this program can file into one. */
bool hasPostgres();

/** @param database what --db says: a path or "postgresql://..."; of a server it is asked whether
 * the archive is spread over others. Throws StoreError, also when this program has no such engine.
 */
Engine engineOf(const std::string& database);

/** Opens an archive for reading only, with whatever engine this program has. Throws StoreError. */
std::unique_ptr<StoreReader> readerOf(const std::string& database);

} // namespace evarchive

#endif
