/**
 * @file
 * Small files that a program replaces again and again, such as cursors.
 */
#ifndef COMMON_REPLACED_FILE_H
#define COMMON_REPLACED_FILE_H

#include "common/new_file.h"

namespace tools {

/** The regular file that is, or will be, read and replaced: never a device, a FIFO or a directory,
 * and of a link not the link. Throws std::runtime_error with @p use ("a cursor") when there is no
 * such file to be. */
std::string fileToReplace(const std::string& path, const std::string& use);

/** Replaces what fileToReplace() has named, whole or not at all, also when the power goes; its
 * owner and mode stay. Throws std::runtime_error.
 * @param access of a file that is not there yet */
void replaceFile(const std::string& path, std::span<const U8_t> bytes,
                 const FileAccess& access = {});

} // namespace tools

#endif
