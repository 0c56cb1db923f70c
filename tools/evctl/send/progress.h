/**
 * @file
 * A progress bar on standard error, for what takes long on a terminal.
 */
#ifndef EVCTL_PROGRESS_H
#define EVCTL_PROGRESS_H

#include "fixed_width.h"

#include <chrono>
#include <string>

namespace evctl {

/** The bar's text: "[#####     ] 500/1000". @param total at least 1 */
std::string progressBar(U64_t done, U64_t total);

/** Shows nothing in the first second, nothing when standard error is no terminal, and leaves
 * nothing behind. */
class Progress {
  public:
    explicit Progress(U64_t total);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void show(U64_t done);

  private:
    U64_t total_;
    bool terminal_;
    bool shown_ = false;
    std::chrono::steady_clock::time_point next_;
};

} // namespace evctl

#endif
