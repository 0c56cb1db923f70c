/**
 * @file
 * The whole command line, from the arguments to the exit status.
 */
#ifndef EVCTL_COMMAND_LINE_H
#define EVCTL_COMMAND_LINE_H

namespace evctl {

/** Runs the subcommand that the arguments name. @return a tools::ExitStatus */
int runCommandLine(int argc, const char* const* argv);

} // namespace evctl

#endif
