/**
 * @file
 * The pager between a long output and the terminal.
 */
#ifndef EVCTL_PAGER_H
#define EVCTL_PAGER_H

#include <sys/types.h>

namespace evctl {

/**
 * While it lives, what goes to standard output goes through a pager, when standard output is a
 * terminal: the one that EVCTL_PAGER or PAGER names (empty, or "cat": none), else less.
 */
class Pager {
  public:
    explicit Pager(bool wanted);
    ~Pager(); ///< waits for its end
    Pager(const Pager&) = delete;
    Pager& operator=(const Pager&) = delete;

    bool isThere() const { return process_ > 0; }

  private:
    pid_t process_ = -1;
    int terminal_ = -1; // what standard output was
};

} // namespace evctl

#endif
