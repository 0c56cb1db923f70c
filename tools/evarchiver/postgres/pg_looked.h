/**
 * @file
 * What was looked up before it is asked for: a blade that sends its log again makes the archive ask
 * for one id after the other, and one statement tells of many.
 */
#ifndef EVARCHIVER_PG_LOOKED_H
#define EVARCHIVER_PG_LOOKED_H

#include "store.h"

#include <map>

namespace evarchive {

/** Ids of generations, and what they hold. As good as the look itself until the transaction ends:
 * what another process has filed since then shows at the fence. */
class LookedUp {
  public:
    /** @return what the id holds, nullptr when nobody has looked */
    const std::optional<StoredEvent>* find(const GenerationKey& generation, U32_t id) const;

    /** How many ids a look from this one on is to take: one at first, more for each that follows
     * where the last one ended. */
    U32_t pageFrom(const GenerationKey& generation, U32_t id) const;

    /** Looked at from @p first on, @p count ids; what was known of the generation is forgotten. */
    void putPage(const GenerationKey& generation, U32_t first, U32_t count,
                 std::vector<StoredEvent> held);

    /** One id more. */
    void put(const GenerationKey& generation, U32_t id, std::optional<StoredEvent> held);

    /** What the id holds is doubtful no more. */
    void confirm(const GenerationKey& generation, U32_t id);

    /** The id is about to change, or all of the generation. */
    void forget(const GenerationKey& generation, U32_t id);
    void forget(const GenerationKey& generation) { pages_.erase(generation); }
    void clear() { pages_.clear(); }

  private:
    struct Page {
        std::map<U32_t, std::optional<StoredEvent>> ids;
        U64_t end = 0; ///< the id behind the last one
        U32_t count = 0;
    };

    std::map<GenerationKey, Page> pages_;
};

} // namespace evarchive

#endif
