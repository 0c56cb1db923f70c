/** Reading files: only regular ones, without a change. */
#include "log_image.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace {

class Load : public testing::Test {
  protected:
    void SetUp() override { ASSERT_NE(mkdtemp(directory_.data()), nullptr); }
    void TearDown() override {
        unlink(path().c_str());
        rmdir(directory_.c_str());
    }
    std::string path() const { return directory_ + "/log"; }

    std::string directory_ = "/tmp/evlogXXXXXX";
};

} // namespace

TEST_F(Load, ReadsTheBytes) {
    std::ofstream(path()) << "abc";
    EvlogImage_t image;
    ASSERT_EQ(evlogLoadFile(path().c_str(), &image), 0);
    EXPECT_EQ(std::string(image.bytes.begin(), image.bytes.end()), "abc");
    EXPECT_EQ(image.fileSize, 3U);
}

TEST_F(Load, KeepsOnlyWhatCanBeReached) {
    std::ofstream(path()).close();
    ASSERT_EQ(truncate(path().c_str(), 5'000'000'000), 0);
    EvlogImage_t image;
    ASSERT_EQ(evlogLoadFile(path().c_str(), &image), 0);
    EXPECT_EQ(image.bytes.size(), 1'600'000U + 160 + 65'535);
    EXPECT_EQ(image.fileSize, 5'000'000'000U);
}

TEST_F(Load, SaysWhyItCouldNot) {
    EvlogImage_t image;
    EXPECT_EQ(evlogLoadFile(path().c_str(), &image), ENOENT);
    EXPECT_EQ(evlogLoadFile(directory_.c_str(), &image), EINVAL);
    ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
    EXPECT_EQ(evlogLoadFile(path().c_str(), &image), EINVAL);
    EXPECT_EQ(evlogLoadFile("/dev/zero", &image), EINVAL);
}
