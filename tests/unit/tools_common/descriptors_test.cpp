#include "common/descriptors.h"

#include <gtest/gtest.h>

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

namespace {

[[noreturn]] void exitWith(bool good) {
    _exit(good ? 0 : 1);
}

/** Whether writing to (or reading from) @p descriptor is refused as if it were closed. */
bool isRefused(int descriptor) {
    char byte = 0;
    errno = 0;
    ssize_t result =
        descriptor == STDIN_FILENO ? read(descriptor, &byte, 1) : write(descriptor, "x", 1);
    return result == -1 && errno == EBADF;
}

} // namespace

// Each in a process of its own, which closes what the test program needs.

TEST(StandardDescriptors, NothingOpenedLaterGetsTheirNumbers) {
    EXPECT_EXIT(
        {
            close(STDIN_FILENO);
            close(STDOUT_FILENO);
            close(STDERR_FILENO);
            tools::guardStandardDescriptors();
            exitWith(open("/dev/null", O_RDONLY) > STDERR_FILENO);
        },
        testing::ExitedWithCode(0), "");
}

TEST(StandardDescriptors, ClosedOnesStillFailWithEbadf) {
    EXPECT_EXIT(
        {
            close(STDIN_FILENO);
            close(STDOUT_FILENO);
            close(STDERR_FILENO);
            tools::guardStandardDescriptors();
            exitWith(isRefused(STDIN_FILENO) && isRefused(STDOUT_FILENO) &&
                     isRefused(STDERR_FILENO));
        },
        testing::ExitedWithCode(0), "");
}

TEST(StandardDescriptors, OpenOnesStayAsTheyAre) {
    EXPECT_EXIT(
        {
            close(STDOUT_FILENO);
            tools::guardStandardDescriptors();
            exitWith(isRefused(STDOUT_FILENO) && write(STDERR_FILENO, "here", 4) == 4);
        },
        testing::ExitedWithCode(0), "here");
}
