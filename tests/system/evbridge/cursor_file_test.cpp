/** The bridge's cursor on disk. */
#include "evbridge/cursor_file.h"

#include "temp_directory.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <sys/stat.h>

using evbridge::Cursor;
using evbridge::CursorFile;
namespace fs = std::filesystem;

namespace {

std::string refusalOf(const std::string& path) {
    try {
        CursorFile file(path);
        file.write({.position = "p\n"});
    } catch (const std::runtime_error& problem) {
        return problem.what();
    }
    return "";
}

} // namespace

TEST(CursorFile, OfALinkTheTargetIsReplacedAndKeepsItsMode) {
    const support::TempDirectory directory;
    const std::string target = directory.file("target");
    const std::string link = directory.file("link");
    support::writeFile(target, "evbridge 1\nold\n");
    fs::permissions(target, fs::perms(0604));
    fs::create_symlink("target", link);
    CursorFile file(link);
    EXPECT_EQ(file.read(), (Cursor{.position = "old\n"}));
    EXPECT_THROW(CursorFile{target}, std::runtime_error); // it is the same one
    file.write({.position = "new\n"});
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_EQ(support::readFile(target), "evbridge 1\nnew\n");
    EXPECT_EQ(fs::status(target).permissions(), fs::perms(0604));
}

TEST(CursorFile, WhatIsNoRegularFileIsRefusedAndStays) {
    const support::TempDirectory directory;
    const std::string fifo = directory.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string nowhere = directory.file("nowhere");
    fs::create_symlink("gone", nowhere);
    const std::string device = directory.file("device");
    fs::create_symlink("/dev/null", device);
    for (const std::string& path : {fifo, device, directory.makeDirectory("directory")}) {
        EXPECT_EQ(refusalOf(path), path + ": not a regular file, which a cursor needs");
    }
    EXPECT_EQ(refusalOf(nowhere), nowhere + ": a link that leads nowhere");
    EXPECT_TRUE(fs::is_fifo(fifo));
    EXPECT_TRUE(fs::is_symlink(device));
    EXPECT_TRUE(fs::is_symlink(nowhere));
}

TEST(CursorFile, ANewOneIsReadAgain) {
    const support::TempDirectory directory;
    CursorFile file(directory.file("cursor"));
    EXPECT_EQ(file.read(), std::nullopt);
    file.write({.suppressed = 7, .position = "p\n"});
    EXPECT_EQ(file.read(), (Cursor{.suppressed = 7, .position = "p\n"}));
}
