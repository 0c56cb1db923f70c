/** evctl: the event manager's command line. */
#include "common/descriptors.h"
#include "evctl/command_line.h"

int main(int argc, char** argv) {
    tools::guardStandardDescriptors();
    return evctl::runCommandLine(argc, argv);
}
