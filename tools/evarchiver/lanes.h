/**
 * @file
 * The lanes of a server together: what goes to which, and how they are in all.
 *
 * A blade's logs belong to one lane, or to one lane of each server that the archive is spread over.
 * An event of another identity than its link's blade concerns two logs and goes to the lanes of
 * both; so all lanes are told who speaks on a link.
 */
#ifndef EVARCHIVER_LANES_H
#define EVARCHIVER_LANES_H

#include "engine.h"
#include "lane.h"

#include <unordered_map>

namespace evarchive {

class Lanes {
  public:
    /** Opens the archive once for each lane and starts them. @param count for each server; 0: as
     * the engine is best used. Throws StoreError. */
    Lanes(const Engine& engine, const LaneSettings& settings, U32_t count,
          const Lane::Callbacks& callbacks);

    /**
     * Adds a request to what is handed over next.
     * @param speaker the link's blade, if it has said who it is
     * @param ticket  comes back with the reply
     */
    void add(LinkNumber link, const std::optional<BladeKey>& speaker, Batch::Kind kind, View body,
             U32_t ticket);

    /** Of what is not handed over yet. */
    bool isUrgent() const;
    std::size_t pending() const;

    /** Hands over what was added. */
    void handOver();

    /** Bytes of work that is not safe yet, handed over or not. */
    std::size_t spooled() const;

    /** Whether more may come on a link: a server that is away takes no more than its part of the
     * budget. */
    bool hasRoom(LinkNumber link, std::size_t budget) const;

    /** Whether a new link may come: where servers are several, one that is away keeps nobody out.
     */
    bool mayTakeLinks(std::size_t budget) const;

    /** Of all together. */
    LaneState state();

    /** Ends all, see Lane::stop(). */
    bool stop(std::chrono::milliseconds patience);

    /** Only after stop(). */
    U64_t countGaps();

  private:
    struct One {
        std::unique_ptr<Lane> lane;
        Batch batch = {}; ///< not handed over yet

        std::size_t spooled() const { return batch.size() + lane->spooled(); }
    };

    std::size_t spooledFor(std::size_t node) const;
    U32_t laneOfEvent(View body);
    void addEvent(LinkNumber link, const std::optional<BladeKey>& speaker, Batch::Kind kind,
                  View body);
    void addStatus(LinkNumber link, View body, U32_t ticket);

    std::vector<One> lanes_;
    Share share_; ///< tells the lane of a log
    std::unordered_map<LinkNumber, U32_t>
        laneOfLink_;     ///< of those whose blades have said who they are
    Bytes lastIdentity_; ///< the last event's, and its lane
    U32_t lastLane_ = 0;
};

} // namespace evarchive

#endif
