#include "common/descriptors.h"
#include "common/exit_status.h"
#include "common/say.h"
#include "gate.h"
#include "lines.h"

namespace {

void say(evarchive::Level level, const std::string& text) {
    evarchive::writeLine(evarchive::stampedLine(level, text, time(nullptr)));
}

} // namespace

int main(int argc, char** argv) {
    tools::guardStandardDescriptors();
    tools::surviveReaders();
    try {
        const auto options = evgate::parseOptions(argc, argv);
        if (const int* status = std::get_if<int>(&options)) {
            return *status;
        }
        evgate::Gate(std::get<evgate::Options>(options), say).run();
        return tools::EXIT_DONE;
    } catch (const std::exception& error) {
        return tools::sayCouldNot("evgate", error.what());
    }
}
