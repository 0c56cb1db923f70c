/**
 * @file
 * The processes that a blade consists of.
 */
#ifndef BLADE_CHILD_H
#define BLADE_CHILD_H

#include <set>
#include <string>
#include <sys/types.h>
#include <vector>

namespace blade {

/** A process started by this one. It is told to end when this process dies. */
class Child {
  public:
    Child() = default;
    ~Child(); ///< kills and reaps it, should it still run
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    /**
     * Starts a program in a process group of its own, so that a terminal's interrupt reaches this
     * process alone, which then ends its children in order. Throws BladeError when it cannot fork.
     * @param name    for lines
     * @param command the program and its arguments; the first word is searched along PATH
     * @param output  descriptor for its standard output; -1: that of this process
     * @param kept    a descriptor that it shall have under the same number; -1: none
     */
    void start(std::string name, const std::vector<std::string>& command, int output,
               int kept = -1);

    bool running() const { return pid_ > 0; }
    pid_t pid() const { return pid_; }
    const std::string& name() const { return name_; }

    /** Sends a signal while it runs. */
    void signal(int number);

    /** Looks whether it has ended since. @return whether it has, once; then ending() tells how */
    bool reap();

    /** How it ended: "emp (pid 17) exited with status 3", "emp (pid 17) died of signal 6
     * (Aborted)". */
    const std::string& ending() const { return ending_; }

    /** Whether it died of a signal that signal() had not sent. */
    bool diedByItself() const { return diedByItself_; }

    /** Whether its end is a failure: neither status 0 nor a signal that asks to end. */
    bool failed() const { return failed_; }

  private:
    std::string name_;
    pid_t pid_ = -1;
    std::string ending_;
    std::set<int> sent_; ///< signals that it was sent
    bool diedByItself_ = false;
    bool failed_ = false;
};

} // namespace blade

#endif
