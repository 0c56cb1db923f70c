/**
 * @file
 * New files that are there whole or not at all.
 */
#ifndef EVCTL_NEW_FILE_H
#define EVCTL_NEW_FILE_H

#include "fixed_width.h"

#include <span>
#include <string>
#include <sys/types.h>

namespace evctl {

/**
 * Writes a file of this user's own (mode 0600) and has it on the device before its name appears.
 * Never replaces anything: throws std::runtime_error when @p path is there, be it a dangling link,
 * or when it cannot be written; nothing is left then.
 */
void writeNewFile(const std::string& path, std::span<const U8_t> bytes);

/** Makes a file that holds @p bytes and is on the device; its name's being there is not. Throws
 * std::runtime_error when something has the name, or when it cannot be written; nothing is left
 * then. */
void writeFileWhole(const std::string& path, std::span<const U8_t> bytes, mode_t mode);

/** Has what happened to names in the directory of @p path on the device. Throws. */
void syncDirectoryOf(const std::string& path);

/** "PATH: what errno means" */
[[noreturn]] void failWith(const std::string& path, int error);

} // namespace evctl

#endif
