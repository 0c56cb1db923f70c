/**
 * @file
 * A blade that is brought up with a stand-in for the event manager.
 */
#ifndef BLADE_FIXTURE_H
#define BLADE_FIXTURE_H

#include "ipc_key.h"
#include "mmsg_client.h"
#include "process.h"
#include "program.h"
#include "temp_directory.h"

#include <string>
#include <vector>

/** Everything that one run of the program blade needs. */
class BladeUnderTest {
  public:
    explicit BladeUnderTest(std::vector<std::string> arguments = {},
                            const support::Process::Environment& environment = {});

    /** Waits for the line "blade: up: ...". @return it */
    std::string waitUntilUp() { return process.waitForOutput("blade: up: "); }

    /** Sends a signal, waits, and checks status, block and sockets afterwards. */
    void stop(int signal, int status);

    std::string slotFile(const std::string& name) const { return base.file("slot0/" + name); }

    support::TempDirectory base;
    support::IpcKey key;
    support::Process process;
};

/** Command line: the example parameter file, stand-in, runner, key and base directory. */
std::vector<std::string> bladeCommand(const std::string& base, const std::string& key,
                                      const std::vector<std::string>& arguments);

/** Path of the stand-in. */
std::string standIn();

/** The child of @p parent whose command line contains @p word; throws when there is none. */
pid_t childOf(pid_t parent, const std::string& word);

#endif
