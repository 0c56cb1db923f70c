#include "common/say.h"

#include "common/line_writer.h"

#include <cerrno>
#include <csignal>

#include <unistd.h>

namespace tools {
namespace {

LineWriter& output() {
    static LineWriter writer(STDOUT_FILENO, program_invocation_short_name);
    return writer;
}

} // namespace

void surviveReaders() {
    signal(SIGPIPE, SIG_IGN);
}

void say(std::string_view text) {
    static std::string line;
    line.assign(program_invocation_short_name).append(": ").append(text);
    output().write(line);
}

void sayLines(std::string_view text) {
    for (size_t start = 0, end = 0; (end = text.find('\n', start)) != std::string_view::npos;
         start = end + 1) {
        say(text.substr(start, end - start));
    }
}

void sayPlain(std::string_view line) {
    output().write(line);
}

U64_t droppedLines() {
    return output().dropped();
}

} // namespace tools
