/**
 * @file
 * New files that are there whole or not at all.
 */
#ifndef COMMON_NEW_FILE_H
#define COMMON_NEW_FILE_H

#include "fixed_width.h"

#include <optional>
#include <span>
#include <string>
#include <sys/stat.h>

namespace tools {

/** Whose a new file is to be, and who may do what with it. */
struct FileAccess {
    mode_t mode = S_IRUSR | S_IWUSR;
    std::optional<uid_t> owner{}; ///< none: this process's user and group
    gid_t group = 0;              ///< with an owner only, where it may be given
};

/** That of the file @p path, which its owner may write at least; none where there is no file. */
std::optional<FileAccess> accessOf(const std::string& path);

/**
 * Writes a file and has it on the device before its name appears. Never replaces anything: throws
 * std::runtime_error when @p path is there, be it a dangling link, or when it cannot be written;
 * nothing is left then.
 * @return false: the file is there, but this process may not give it to that owner
 */
bool writeNewFile(const std::string& path, std::span<const U8_t> bytes,
                  const FileAccess& access = {});

/** Makes a file that holds @p bytes and is on the device; its name's being there is not. Throws
 * std::runtime_error when something has the name, or when it cannot be written; nothing is left
 * then. @return as writeNewFile() */
bool writeFileWhole(const std::string& path, std::span<const U8_t> bytes, const FileAccess& access);

/** Has what happened to names in the directory of @p path on the device. Throws. */
void syncDirectoryOf(const std::string& path);

/** "PATH: what errno means" */
[[noreturn]] void failWith(const std::string& path, int error);

} // namespace tools

#endif
