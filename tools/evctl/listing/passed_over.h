/**
 * @file
 * Files among many that cannot be read: the rest is read, and each of them is said.
 */
#ifndef EVCTL_PASSED_OVER_H
#define EVCTL_PASSED_OVER_H

#include <functional>
#include <string>
#include <vector>

namespace evctl {

/** Remembers what could not be read. */
class PassedOver {
  public:
    /** Calls @p read. What it throws is kept as a reason, which begins with the file's name. */
    void attempt(const std::function<void()>& read);

    void add(const std::string& reason) { reasons_.push_back(reason); }

    const std::vector<std::string>& reasons() const { return reasons_; }

    /** Says each on standard error. @return the exit status, for a program that has come to
     * @p status with the others: at least a finding, when there is any. */
    int say(int status) const;

  private:
    std::vector<std::string> reasons_;
};

} // namespace evctl

#endif
