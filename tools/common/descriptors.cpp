#include "common/descriptors.h"

#include <cerrno>
#include <cstdlib>
#include <initializer_list>

#include <fcntl.h>
#include <unistd.h>

namespace tools {

void guardStandardDescriptors() {
    for (int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(descriptor, F_GETFD) != -1 || errno != EBADF) {
            continue;
        }
        // Open for the other direction only. The lowest free number is this one.
        int flags = descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY;
        if (open("/dev/null", flags) != descriptor) {
            abort();
        }
    }
}

} // namespace tools
