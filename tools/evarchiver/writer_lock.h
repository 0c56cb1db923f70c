/**
 * @file
 * One writer an archive: what an archiver knows of it from memory would not survive a second one.
 */
#ifndef EVARCHIVER_WRITER_LOCK_H
#define EVARCHIVER_WRITER_LOCK_H

#include <string>

namespace evarchive {

/** Holds the file "<path>-lock"; gone with the process, however that ends. */
class WriterLock {
  public:
    /** Throws StoreError when another process holds it. An archive in memory needs none. */
    explicit WriterLock(const std::string& path);
    ~WriterLock();
    WriterLock(const WriterLock&) = delete;
    WriterLock& operator=(const WriterLock&) = delete;

  private:
    int descriptor_ = -1;
};

} // namespace evarchive

#endif
