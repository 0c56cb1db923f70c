/**
 * @file
 * Directories that nobody else can reach into.
 */
#ifndef BLADE_DIRECTORIES_H
#define BLADE_DIRECTORIES_H

#include <string>

namespace blade {

/**
 * Makes a directory, and what is missing above it, with mode 0700.
 *
 * The last @p ownDepth parts of the path are the blade's own: none may be a link, belong to another
 * user or be writable by others. Above them, nobody but root and this user may be able to move
 * things: links there are followed, and every directory must be root's or this user's and either
 * not writable by everybody or sticky, like /tmp. Throws BladeError otherwise.
 *
 * @param group whose members may pass through the blade's own parts; empty: nobody else
 * @return the path without links, which is the one to use: it stays what was looked at
 */
std::string ownDirectory(const std::string& path, size_t ownDepth, const std::string& group = "");

/** Remembers that this process made a directory or a file, for takeBackMade(). */
void noteMade(const std::string& path);

/** A start that was refused: removes what this process made, newest first, as far as it is empty.
 */
void takeBackMade();

/** Throws BladeError when @p path is there and is not a regular file of this user's own. */
void requireOwnFile(const std::string& path);

/** Throws BladeError when @p path is there and is not a directory that ownDirectory() would take.
 */
void requireOwnDirectory(const std::string& path);

/** Where a blade is whose user names no directory: $XDG_RUNTIME_DIR/blade, for root /run/blade.
 * Throws BladeError when there is no such place. */
std::string defaultBase();

} // namespace blade

#endif
