/** evctl params against a real parameter block. */
#include "parameter_block.h"
#include "process.h"
#include "program.h"
#include "temp_directory.h"

#include <gtest/gtest.h>

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
