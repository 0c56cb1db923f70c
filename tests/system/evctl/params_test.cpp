/** evctl params against a real parameter block. */
#include "parameter_block.h"
#include "process.h"
#include "program.h"
#include "temp_directory.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

class Params : public testing::Test {
  protected:
    support::Process show(const std::vector<std::string>& more = {}) {
        std::vector<std::string> arguments = {"params", "show", "--key", key_.text()};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return support::Process(support::commandOf("evctl", arguments), directory_.file("evctl"));
    }

    support::TempDirectory directory_;
    support::IpcKey key_;
};

} // namespace

TEST_F(Params, ShowsFieldsByName) {
    support::ParameterBlock block(key_, "/tmp/somewhere");
    support::Process evctl = show();
    EXPECT_EQ(evctl.wait(), support::exitedWith(0));
    EXPECT_NE(evctl.output().find("version                 15\n"), std::string::npos);
    EXPECT_NE(evctl.output().find("\nslotId                  2\n"), std::string::npos);
    EXPECT_NE(evctl.output().find("\nmmsgDirectory           /tmp/somewhere\n"), std::string::npos);
}

TEST_F(Params, JsonIsOneObject) {
    support::ParameterBlock block(key_, "/tmp/somewhere");
    support::Process evctl = show({"--json"});
    EXPECT_EQ(evctl.wait(), support::exitedWith(0));
    EXPECT_EQ(evctl.output().find(R"({"version":15,"flags":0,"slotId":2,)"), 0U);
    EXPECT_NE(evctl.output().find(R"("mmsgDirectory":"/tmp/somewhere")"), std::string::npos);
    EXPECT_EQ(evctl.output().find('\n'), evctl.output().size() - 1);
}

TEST_F(Params, BlockOfAnotherVersionCannot) {
    support::ParameterBlock block(key_, "/tmp/somewhere");
    block.bytes()[3] = 14;
    support::Process evctl = show();
    EXPECT_EQ(evctl.wait(), support::exitedWith(2));
    EXPECT_NE(evctl.errorOutput().find("Expected version 15, attached to version 14."),
              std::string::npos);
}

TEST_F(Params, NoBlockCannot) {
    support::Process evctl = show();
    EXPECT_EQ(evctl.wait(), support::exitedWith(2));
    EXPECT_FALSE(key_.exists());
}

TEST_F(Params, BlockOfAnotherUserIsRefusedUnlessTold) {
    support::ParameterBlock block(key_, "/tmp/somewhere");
    int id = shmget(key_.value(), 0, 0);
    struct shmid_ds segment {};
    ASSERT_EQ(shmctl(id, IPC_STAT, &segment), 0);
    segment.shm_perm.uid = 4711;
    ASSERT_EQ(shmctl(id, IPC_SET, &segment), 0);
    support::Process refused = show();
    EXPECT_EQ(refused.wait(), support::exitedWith(2));
    std::ostringstream key;
    key << "0x" << std::hex << key_.value();
    EXPECT_EQ(refused.errorOutput(), "evctl: the parameter block under key " + key.str() +
                                         " belongs to user 4711; --any-owner takes it all the "
                                         "same\n");
    EXPECT_EQ(refused.output(), "");
    support::Process told = show({"--any-owner"});
    EXPECT_EQ(told.wait(), support::exitedWith(0));
}
