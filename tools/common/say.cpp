#include "common/say.h"

#include <cerrno>
#include <cstdio>

namespace tools {

void say(const std::string& text) {
    printf("%s: %s\n", program_invocation_short_name, text.c_str());
    fflush(stdout);
}

void sayLines(const std::string& text) {
    for (size_t start = 0, end = 0; (end = text.find('\n', start)) != std::string::npos;
         start = end + 1) {
        say(text.substr(start, end - start));
    }
}

} // namespace tools
