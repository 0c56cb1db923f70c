/**
 * @file
 * A running message switch and its endpoints, for the tests of this directory.
 */
#ifndef SWITCH_FIXTURE_H
#define SWITCH_FIXTURE_H

#include "mmsg_client.h"
#include "process.h"
#include "program.h"
#include "temp_directory.h"

#include <string>
#include <vector>

/** A switch of its own in a directory of its own. */
class RunningSwitch {
  public:
    /** Starts it with --trace and waits until it listens. */
    explicit RunningSwitch(const std::string& directory,
                           const std::vector<std::string>& arguments = {});

    /** Connects as an endpoint and waits until the switch has taken the connection. The numbers in
     * the switch's lines count all connections, so they follow the order of these calls. */
    support::MmsgClient connect(const std::string& endpoint);

    /** Asks it to end with @p signal, waits, and returns what it printed. Fails the test unless it
     * exits with 0. */
    std::string stop(int signal = 15);

    support::Process& process() { return process_; }

  private:
    size_t connectionsOf(const std::string& endpoint) const;

    std::string directory_;
    support::Process process_;
};

/** Proves that nothing else came to @p receiver: has @p sender send it a mark, which must be the
 * next message. Both go through the same switch, which keeps the order of one connection. */
void expectNothingBefore(support::MmsgClient& sender, support::MmsgClient& receiver,
                         U32_t receiverEndpoint);

#endif
