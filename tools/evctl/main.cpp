/** evctl: the event manager's command line. */
#include "evctl/command_line.h"

int main(int argc, char** argv) {
    return evctl::runCommandLine(argc, argv);
}
