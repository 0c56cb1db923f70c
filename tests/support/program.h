/**
 * @file
 * Where the programs under test are, and what runs them.
 */
#ifndef TEST_PROGRAM_H
#define TEST_PROGRAM_H

#include <string>
#include <vector>

namespace support {

/** Path of a program of this build: program("msm"). */
std::string program(const std::string& name);

/** Path of a file of the source tree: sourceFile("demo/blade.conf"). */
std::string sourceFile(const std::string& name);

/** The command in front of a cross-built program, in words; empty where programs run by themselves.
 */
const std::vector<std::string>& runner();

/** runner() as one text, for options that take a launcher. */
std::string runnerText();

/** A command line of this build's program: the runner, the program's path, the arguments. */
std::vector<std::string> commandOf(const std::string& name,
                                   const std::vector<std::string>& arguments);

} // namespace support

#endif
