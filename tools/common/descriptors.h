/**
 * @file
 * The standard descriptors, whatever the caller has closed.
 */
#ifndef TOOLS_DESCRIPTORS_H
#define TOOLS_DESCRIPTORS_H

namespace tools {

/**
 * Makes sure that descriptors 0 to 2 are taken, so that no socket, lock or database of the program
 * can get one of them and receive its lines. First thing in main(). A descriptor that was closed
 * still fails with EBADF when it is read from or written to.
 */
void guardStandardDescriptors();

} // namespace tools

#endif
