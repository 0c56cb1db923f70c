/**
 * @file
 * A System V key for a test's parameter block.
 */
#ifndef TEST_IPC_KEY_H
#define TEST_IPC_KEY_H

#include <string>

namespace support {

/** A key that nobody uses at the time; its segment, if there is one, is removed at the end. */
class IpcKey {
  public:
    IpcKey();
    ~IpcKey();
    IpcKey(const IpcKey&) = delete;
    IpcKey& operator=(const IpcKey&) = delete;

    int value() const { return value_; }
    std::string text() const { return std::to_string(value_); } ///< decimal, for command lines

    /** @return whether a segment stands under the key */
    bool exists() const;

  private:
    int value_;
};

} // namespace support

#endif
