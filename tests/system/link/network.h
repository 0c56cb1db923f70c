/**
 * @file
 * Two machines and the wire between them, as network namespaces: the test's own process moves into
 * the first, what is started with inFar() runs in the second.
 */
#ifndef TEST_NETWORK_H
#define TEST_NETWORK_H

#include "process.h"
#include "rough_wire.h"

#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace support {

/** The wire's properties. */
struct Wire {
    int mtu = 1500;
    /** Arguments of tc's token bucket filter on both ends; empty: none. */
    std::string shape = {};
    /** Delay, loss and reordering; then packets travel between tun devices. */
    std::optional<Roughness> rough = {};
};

inline void PrintTo(const Wire& wire, std::ostream* out) {
    *out << "MTU " << wire.mtu << " " << wire.shape << (wire.rough ? "rough" : "");
}

/** Runs a command line of the shell. Throws std::runtime_error when it fails. */
void shell(const std::string& line);

/** One wire; one a process. Throws std::runtime_error when it cannot be made. */
class Network {
  public:
    /** Address of the far end. */
    static constexpr char FAR[] = "10.99.0.2";

    /** @return why this process may make no namespaces, or nothing */
    static std::string whyNot(const Wire& wire);

    /** @param base path for files of helpers */
    Network(const Wire& wire, const std::string& base);

    /** A command line that runs at the far end. */
    std::vector<std::string> inFar(const std::vector<std::string>& command) const;

    /** Pulls the plug, or puts it in. */
    void setUp(bool isUp);

    /** What was done to packets; none on a wire that is not rough. */
    const RoughWire* rough() const { return rough_.get(); }

  private:
    std::unique_ptr<Process> far_; ///< holds the far namespace open
    std::unique_ptr<RoughWire> rough_;
};

} // namespace support

#endif
