/**
 * @file
 * What waits to go out on a connection, and by which rules it goes.
 */
#ifndef TOOLS_OUTGOING_H
#define TOOLS_OUTGOING_H

#include "fixed_width.h"

#include <cstddef>

namespace tools {

/** The messages that wait for one peer. */
class Outgoing {
  public:
    /** How it stands after flush(). */
    enum class State : U8_t {
        EMPTY,  ///< everything has gone out
        FULL,   ///< the rest can go out once the peer has taken something
        LATER,  ///< the rest can go out some time; nothing tells when
        BROKEN, ///< nothing goes out any more
    };

    virtual ~Outgoing() = default;

    /** Sends what may be sent now. Never blocks. */
    virtual State flush(int descriptor) = 0;

    virtual std::size_t bytes() const = 0; ///< that have not gone out
};

} // namespace tools

#endif
