/**
 * @file
 * The command line's types by name, for headers that only pass them on: the library itself is dear
 * to compile.
 */
#ifndef TOOLS_CLI_FWD_H
#define TOOLS_CLI_FWD_H

namespace CLI {
class App;
class Option;
} // namespace CLI

#endif
