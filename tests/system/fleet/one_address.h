/**
 * @file
 * Two machines behind one address, as network namespaces: whoever connects reaches one or the
 * other, by the ports of the connection. Packets are routed as they are, nothing ends a connection
 * on the way.
 */
#ifndef ONE_ADDRESS_H
#define ONE_ADDRESS_H

#include "process.h"

#include <memory>
#include <string>
#include <vector>

namespace fleet {

/** The calling process moves to the blades' side for good. Throws std::runtime_error when it cannot
 * be made. */
class OneAddress {
  public:
    /** What both machines have. */
    static constexpr char ADDRESS[] = "10.98.0.1";
    static constexpr int MACHINES = 2;

    /** Moves. @return why this process may make no namespaces, or nothing */
    static std::string whyNot();

    /** @param base path for files of helpers */
    explicit OneAddress(const std::string& base);

    /** A command line that runs on a machine, 0 or 1. */
    std::vector<std::string> on(int machine, const std::vector<std::string>& command) const;

    /** From now on packets go to these machines, as when a balancer has found another one dead. */
    void spreadOver(const std::vector<int>& machines) const;

  private:
    std::vector<std::unique_ptr<support::Process>> machines_; ///< each holds a namespace open
};

} // namespace fleet

#endif
