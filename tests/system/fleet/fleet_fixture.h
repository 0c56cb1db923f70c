/**
 * @file
 * Real archivers on a PostgreSQL server, simulated blades, and a real event manager among them.
 */
#ifndef FLEET_FIXTURE_H
#define FLEET_FIXTURE_H

#include "blade.h"
#include "msm_reader.h"
#include "pg_server.h"
#include "program.h"
#include "store.h"

#include <gmock/gmock.h>

#include <deque>

namespace fleet {

/** An archiver of the fleet. */
struct Archiver {
    std::unique_ptr<support::Process> process;
    U16_t port = 0;
};

/** A blade with an event manager of its own. */
class RealBlade {
  public:
    RealBlade();
    ~RealBlade();

    void connectTo(U16_t port);
    void log(size_t count);

    /** Whether it has not died, nor will of what it was sent. */
    bool isAlive() { return !emp_.process.poll().has_value(); }

    /** All that was logged so far is in the archive, byte for byte. */
    bool isArchived(evarchive::StoreReader& archive);

    /** Makes time pass for its timers. */
    void pass();

  private:
    Blade blade_;
    EventBodies copies_;
    RunningEmp emp_;
    std::unique_ptr<MsmReader> reader_;
    size_t logged_ = 0;
};

class FleetProcessTest : public testing::Test {
  protected:
    /** Starts one more archiver. */
    Archiver& startArchiver(const std::string& place,
                            const std::vector<std::string>& arguments = {});

    /** The same, of one that waits for its server: it does not listen yet. */
    Archiver& startWaiting(const std::string& place,
                           const std::vector<std::string>& arguments = {});

    /** Until it listens. */
    static void awaitPort(Archiver& archiver);

    /** Starts one again that was killed, where it was. */
    void restart(Archiver& archiver, const std::string& place);

    /** Ends all with SIGTERM; each must say that all is safe. */
    void stopArchivers();

    /** Simulated blades at all archivers, in the background. */
    std::unique_ptr<support::Process> startFleet(const std::string& check,
                                                 const std::vector<std::string>& arguments);

    support::TempDirectory directory_;
    std::deque<Archiver> archivers_;

  private:
    std::unique_ptr<support::Process> launch(const std::string& listen, const std::string& place,
                                             const std::vector<std::string>& arguments);

    int starts_ = 0;
};

/** waitUntil() for what a server is asked, each time on a connection of its own: looks less often.
 */
bool waitForServer(const std::function<bool()>& reached,
                   std::chrono::milliseconds deadline = support::DEADLINE);

/** FLEET_ROUNDS=n, see scripts/prove; as many rounds as given where it is not set. */
int rounds(int usual);

/** Runs "evarchiver db ..." and expects its success. @return its output */
std::string runDb(const std::vector<std::string>& arguments);

} // namespace fleet

#endif
