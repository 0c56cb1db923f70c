#include "bridge.h"
#include "common/descriptors.h"
#include "common/exit_status.h"
#include "common/say.h"
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
        const auto options = evbridge::parseOptions(argc, argv);
        if (const int* status = std::get_if<int>(&options)) {
            return *status;
        }
        return evbridge::runBridge(std::get<evbridge::Options>(options), say);
    } catch (const std::exception& error) {
        return tools::sayCouldNot("evbridge", error.what());
    }
}
