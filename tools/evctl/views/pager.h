/**
 * @file
 * The pager between a long output and the terminal.
 */
#ifndef EVCTL_PAGER_H
#define EVCTL_PAGER_H

#include "common/cli_fwd.h"

#include <functional>
#include <string>
#include <sys/types.h>

namespace evctl {

/** What is known of a pager by the command line that runs it, and by LESS in the environment. */
struct PagerCommand {
    std::string text;         ///< as a shell takes it; empty: none
    bool canBeRun = true;     ///< false only when it surely cannot
    bool showsColours = true; ///< surely
};

/** @param text a command line; @param lessOptions the value of LESS, nullptr when it is not set */
PagerCommand pagerCommandOf(const std::string& text, const char* lessOptions);

/**
 * While it lives, what goes to standard output goes through a pager, when standard output is a
 * terminal: the one that EVCTL_PAGER or PAGER names (empty, or "cat": none), else less or more. One
 * that cannot be run is said, and there is none. The keys that interrupt are the pager's meanwhile.
 */
class Pager {
  public:
    explicit Pager(bool wanted);
    ~Pager(); ///< finish()
    Pager(const Pager&) = delete;
    Pager& operator=(const Pager&) = delete;

    bool isThere() const { return process_ > 0; }
    bool showsColours() const { return !isThere() || command_.showsColours; } ///< or the terminal

    /** Waits for its end; from then on it is not there. @return false when it could not be run
     * after all, so that nothing was shown, which is said */
    bool finish();

  private:
    PagerCommand command_;
    pid_t process_ = -1;
    int terminal_ = -1; // what standard output was
};

/** Adds --no-pager. */
void addPagerOption(CLI::App& command, bool& noPager);

/** Calls @p run, what it prints going through a pager. @return its exit status, or that of a pager
 * that could not be run */
int runPaged(bool wanted, const std::function<int()>& run);

} // namespace evctl

#endif
