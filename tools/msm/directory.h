/**
 * @file
 * The directory in which a switch listens.
 */
#ifndef MSM_DIRECTORY_H
#define MSM_DIRECTORY_H

#include <stdexcept>
#include <string>

namespace msm {

/** Name of the socket that the other blade's switch connects to. */
constexpr char LINK_SOCKET_NAME[] = "link";

/** Why a switch cannot listen; what() is a whole sentence for the user. */
class DirectoryError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/** Holds the right to listen in a directory, from construction to destruction. */
class DirectoryClaim {
  public:
    /** Throws DirectoryError when @p path is no directory, a socket's path in it would be too long,
     * or another switch listens there. */
    explicit DirectoryClaim(const std::string& path);
    ~DirectoryClaim();
    DirectoryClaim(const DirectoryClaim&) = delete;
    DirectoryClaim& operator=(const DirectoryClaim&) = delete;

  private:
    int descriptor_;
};

/**
 * Makes way for a socket at @p path: removes one that nobody listens on. Throws DirectoryError when
 * somebody does, when something else than a socket is there, or when it cannot be removed.
 */
void removeStaleSocket(const std::string& path);

/** Throws DirectoryError when @p path does not fit into a socket's address. */
void checkSocketPath(const std::string& path);

} // namespace msm

#endif
