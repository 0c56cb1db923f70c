/**
 * @file
 * Two machines and the wire between them, as network namespaces: the test's own process moves into
 * the first, what is started with inFar() runs in the second.
 */
#ifndef TEST_NETWORK_H
#define TEST_NETWORK_H

#include "process.h"

#include <memory>
#include <string>
#include <vector>

namespace support {

/** The wire's properties. */
struct Wire {
    int mtu = 1500;
    /** Arguments of tc's token bucket filter on both ends; empty: none. */
    std::string shape = {};
};

/** One wire; one a process. Throws std::runtime_error when it cannot be made. */
class Network {
  public:
    /** Address of the far end. */
    static constexpr char FAR[] = "10.99.0.2";

    /** @return why this process may make no namespaces, or nothing */
    static std::string whyNot();

    /** @param base path for files of helpers */
    Network(const Wire& wire, const std::string& base);

    /** A command line that runs at the far end. */
    std::vector<std::string> inFar(const std::vector<std::string>& command) const;

    /** Pulls the plug, or puts it in. */
    void setUp(bool isUp);

  private:
    std::unique_ptr<Process> far_; ///< holds the far namespace open
};

} // namespace support

#endif
