/**
 * @file
 * A terminal whose whole screen shows one picture after the other.
 */
#ifndef EVCTL_LIVE_SCREEN_H
#define EVCTL_LIVE_SCREEN_H

#include <chrono>
#include <string>
#include <termios.h>
#include <vector>

namespace evctl {

/** While it lives, standard output is a second screen of the terminal, and keys are read one by one
 * and not shown. Its end, by whichever of the usual signals too, leaves the terminal as it was. */
class LiveScreen {
  public:
    LiveScreen();
    ~LiveScreen();
    LiveScreen(const LiveScreen&) = delete;
    LiveScreen& operator=(const LiveScreen&) = delete;

    /** Draws lines over those before; what does not fit is cut. */
    void show(const std::vector<std::string>& lines) const;

    /** Waits so long, or until there is a reason to draw at once. Does not return when a signal
     * ends the process. @return false when the user wants the end */
    bool wait(std::chrono::milliseconds time);

  private:
    void take();
    void leave() const;
    bool readKeys();
    void readSignal();

    int signals_ = -1;
    bool hasKeys_ = false; // standard input is a terminal
    struct termios before_ {};
};

} // namespace evctl

#endif
