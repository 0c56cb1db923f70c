/** evctl: the event manager's command line. */
#include "common/descriptors.h"
#include "evctl/command_line.h"
#include "evctl/hand_over.h"

int main(int argc, char** argv) {
    tools::guardStandardDescriptors();
    evctl::handOverServers(argv);
    return evctl::runCommandLine(argc, argv);
}
