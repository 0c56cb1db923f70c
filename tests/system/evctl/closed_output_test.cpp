/** evctl whose caller closed its standard output. */
#include "mmsg_client.h"
#include "process.h"
#include "program.h"
#include "temp_directory.h"

#include <gtest/gtest.h>

TEST(ClosedOutput, FollowSaysSoBeforeItConnects) {
    support::TempDirectory directory;
    support::MmsgListener listener(directory.file("smi_ind"));
    std::string command = "exec " + support::runnerText() + " " + support::program("evctl") +
                          " follow --count 1 --dir " + directory.path() + " >&-";
    support::Process evctl({"sh", "-c", command}, directory.file("evctl"));
    EXPECT_EQ(evctl.wait(), support::exitedWith(2));
    EXPECT_EQ(evctl.errorOutput(), "evctl: cannot write standard output\n");
}
