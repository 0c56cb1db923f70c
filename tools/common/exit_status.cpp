#include "exit_status.h"

#include "text.h"

#include <iostream>

namespace tools {

int sayCouldNot(const std::string& program, const std::string& text) {
    std::cerr << program << ": " << shownLine(text) << "\n";
    return EXIT_COULD_NOT;
}

} // namespace tools
