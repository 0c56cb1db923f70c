/** evctl-pg: evctl with the library that archives on PostgreSQL servers are read with. */
#include "common/descriptors.h"
#include "engine.h"
#include "evctl/command_line.h"

int main(int argc, char** argv) {
    tools::guardStandardDescriptors();
    evarchive::useServerReader(evarchive::readerOf);
    return evctl::runCommandLine(argc, argv);
}
