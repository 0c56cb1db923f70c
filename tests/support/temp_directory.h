/**
 * @file
 * A directory of its own for a test, removed with all that is in it.
 */
#ifndef TEST_TEMP_DIRECTORY_H
#define TEST_TEMP_DIRECTORY_H

#include <string>

namespace support {

/** A fresh directory directly below /tmp, so that socket paths in it stay short. */
class TempDirectory {
  public:
    TempDirectory();
    ~TempDirectory();
    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;

    const std::string& path() const { return path_; }

    /** Path of @p name in the directory. */
    std::string file(const std::string& name) const { return path_ + "/" + name; }

    /** Makes a directory in it. @return its path */
    std::string makeDirectory(const std::string& name) const;

  private:
    std::string path_;
};

/** Whole content of a file, empty when it cannot be read. */
std::string readFile(const std::string& path);

/** Replaces a file's content. Throws std::runtime_error when it cannot. */
void writeFile(const std::string& path, const std::string& content);

} // namespace support

#endif
