/**
 * @file
 * The file of an archive as a thing of its own: who may write it, and whether it is still the one
 * that its name leads to.
 */
#ifndef EVARCHIVER_DATABASE_FILE_H
#define EVARCHIVER_DATABASE_FILE_H

#include <string>
#include <sys/types.h>

namespace evarchive {

/**
 * Holds the open file locked against a second archiver: what the first knows of it by heart would
 * not survive one. The lock goes with the process, however that ends. It must outlive the database:
 * closing any descriptor of the file takes SQLite's own locks away.
 */
class DatabaseFile {
  public:
    /** Opens the file, makes it with mode 0600 if there is none. Throws StoreError, also when
     * another process holds it, and for names that mean a database that is gone with the process:
     * "", ":memory:" and "file:..." */
    explicit DatabaseFile(std::string path);

    /** Removes the file again when it was made here and keep() was never called. */
    ~DatabaseFile();
    DatabaseFile(const DatabaseFile&) = delete;
    DatabaseFile& operator=(const DatabaseFile&) = delete;

    /** The archive is a good one. */
    void keep() { isMade_ = false; }

    /** Throws StoreError when the name leads to another file by now, or to none. */
    void requireInPlace() const;

  private:
    void open();
    bool isInPlace() const;

    std::string path_;
    int descriptor_ = -1;
    dev_t device_ = 0;
    ino_t inode_ = 0;
    bool isMade_ = false;
};

} // namespace evarchive

#endif
