/**
 * @file
 * Archives on servers are read by a second program, the same one with the library for that: loading
 * it takes longer than most commands do, and is left to those that need it.
 */
#ifndef EVCTL_HAND_OVER_H
#define EVCTL_HAND_OVER_H

namespace evctl {

/** Becomes that program when an argument names a server; returns when none does, or when the
 * program is not installed (whoever reads the archive then says so). */
void handOverServers(char** argv);

} // namespace evctl

#endif
