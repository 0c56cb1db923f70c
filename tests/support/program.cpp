#include "program.h"

#include <iterator>
#include <sstream>

namespace support {

std::string program(const std::string& name) {
    return std::string(TEST_PROGRAM_DIRECTORY) + "/" + name;
}

std::string sourceFile(const std::string& name) {
    return std::string(TEST_SOURCE_DIRECTORY) + "/" + name;
}

const std::vector<std::string>& runner() {
    static const std::vector<std::string> words = [] {
        std::istringstream text(TEST_RUNNER);
        return std::vector<std::string>(std::istream_iterator<std::string>(text), {});
    }();
    return words;
}

std::string runnerText() {
    return TEST_RUNNER;
}

std::vector<std::string> commandOf(const std::string& name,
                                   const std::vector<std::string>& arguments) {
    std::vector<std::string> command = runner();
    command.push_back(program(name));
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

} // namespace support
