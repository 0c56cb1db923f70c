/**
 * @file
 * The end of a reading that has none of its own: the signals that ask for it.
 */
#ifndef EVCTL_STOP_H
#define EVCTL_STOP_H

#include <exception>

namespace evctl {

/** A signal asks for the end. */
class Stopped : public std::exception {
  public:
    const char* what() const noexcept override { return "stopped"; }
};

/**
 * While it lives, the first SIGINT, SIGTERM or SIGHUP ends what waits, by way of Stopped; a second
 * one ends the process. Those that are ignored stay so. One at a time.
 */
class Stop {
  public:
    Stop();
    ~Stop(); ///< the signals are as they were, but for those that have come
    Stop(const Stop&) = delete;
    Stop& operator=(const Stop&) = delete;

    /** Can be read once a signal has come; -1 while there is no Stop. */
    static int descriptor();

    /** Ends the process as the signal that has come would have. */
    [[noreturn]] static void obey();
};

} // namespace evctl

#endif
