/**
 * @file
 * A blade in memory around the whole event manager: its program, with main(), runs in this process
 * against files, a message switch, an archiver and a clock that are plain data. Every system call
 * that it makes arrives here; no socket and no file of the host is touched.
 *
 * CMakeLists.txt makes copies of the event manager's libraries in which the calls bear other names
 * (renamed_calls.txt) and all variables stand in sections of their own, so that each run begins
 * with the state of a new process.
 */
#ifndef TESTS_FUZZ_SIMULATED_BLADE_H
#define TESTS_FUZZ_SIMULATED_BLADE_H

#include "messages.h"
#include "mpu_gbl.h"

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace fuzz {

constexpr char LOG_PATH[] = "/nvram/kelta_eventlog";
constexpr char ALTERNATE_PREFIX[] = "/nvram/aelfiles/kelta_alteventlog";

/** How a run of the event manager ended. */
enum class Ending {
    INPUT_OVER, ///< it waited, and nothing was left that could happen
    BUG_CHECK,  ///< it stopped itself
    EXIT,       ///< main() came back
};

/** The archiver's end of the link that the event manager has asked for last. */
struct ArchiverLink {
    enum State { NONE, CONNECTING, CONNECTED, REFUSED, CLOSED, RESET };
    State state = NONE;
    std::deque<std::uint8_t> toManager{};
    std::uint32_t room = 0xFFFFFFFF; ///< bytes that sends still get rid of
    std::uint32_t statusHandle = 0;  ///< of the last status request seen
    std::uint32_t inquiryHandle = 0; ///< of the last relayed inquiry seen
    bool connectsAtOnce = false;
};

class Blade {
  public:
    using File = std::shared_ptr<Bytes>;

    Blade();

    std::map<std::string, File> files{};  ///< by path
    std::deque<std::uint8_t> toManager{}; ///< what the message switch has sent
    std::size_t pieceSize = 0;            ///< most bytes that one receive gives; 0: all
    ArchiverLink archiver{};
    unsigned silentPasses = 0; ///< waits that end by their time-out before the next idle()
    unsigned failingCall = 0;  ///< the call from now on that fails; 0: none
    bool disturbed = false;    ///< a call has failed, or the archiver had events dropped
    bool fullReport = false;   ///< a bug-check makes its whole report and its files
    std::uint32_t clock = 1'164'117'600;
    std::string bugCheck{}; ///< its text

    /** Makes something happen, now that the event manager waits. @return false: nothing is left */
    std::function<bool(Blade&)> idle{};
    std::function<void()> scanned{}; ///< called when the scan of the log is through

    void sendToManager(std::span<const std::uint8_t> bytes) {
        toManager.insert(toManager.end(), bytes.begin(), bytes.end());
    }
    void setFile(const std::string& path, Bytes bytes) {
        files[path] = std::make_shared<Bytes>(std::move(bytes));
    }

    /** Runs the event manager from its start on. Once for each Blade. */
    Ending run();

    // --- What the system calls work on
    struct Descriptor {
        enum Kind { FREE, STANDARD, FILE, SWITCH, ARCHIVER };
        Kind kind = FREE;
        File file{};
        std::size_t position = 0;
    };
    std::vector<Descriptor> descriptors;
    std::vector<std::string> listing{}; ///< of the directory that is open
    std::size_t listed = 0;
    unsigned temporaryFiles = 0;
    unsigned emptyHeaders = 0; ///< seen so far
    MPU_PARAMS_t parameters{};

    int newDescriptor(Descriptor descriptor);
    Descriptor* descriptor(int number); ///< NULL, with errno, when it is not open
    bool fails();                       ///< whether this call is to fail
    bool somethingIsReady();            ///< also makes things happen until it is so
};

/** The blade that runs. */
extern Blade* running;

} // namespace fuzz

#endif
