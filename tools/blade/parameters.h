/**
 * @file
 * The blade's shared parameter block, from creation to removal.
 */
#ifndef BLADE_PARAMETERS_H
#define BLADE_PARAMETERS_H

#include "error.h"
#include "mpu_gbl.h"

#include <string>
#include <vector>

namespace blade {

/** Where the contents of the block come from. */
struct ParameterSource {
    std::string file;                ///< the text parameter file
    std::vector<std::string> extras; ///< lines that follow the file's, and so hold against them
    std::string base;                ///< not empty: directories are <base>/slot<n>/{mmsg,nvram,log}
    std::string group; ///< that may pass through to the switch's sockets; empty: nobody else
};

/** Lowest key that the event manager takes. */
constexpr int KEY_MIN = 100;

/** Key of a blade whose user names none; the slot, where one is given, is added. */
constexpr int KEY_DEFAULT = 0x0B1ADE00;

/** The block under its key; removed with the object. */
class ParameterBlock {
  public:
    /**
     * Creates the block and its directories, which are in defaultBase() where nobody names one, and
     * puts their paths without links into it. Throws BladeError when it cannot, when its version is
     * not 15, when only some directories are named, when one of them is not for this user alone
     * (see ownDirectory()), and when a block under the key is in use.
     * @param key System V key, at least KEY_MIN
     */
    ParameterBlock(const ParameterSource& source, int key);
    ~ParameterBlock();
    ParameterBlock(const ParameterBlock&) = delete;
    ParameterBlock& operator=(const ParameterBlock&) = delete;

    int key() const { return key_; }
    U32_t slot() const { return block_->slotId; }
    std::string mmsgDirectory() const;
    std::string nvramDirectory() const;
    std::string logDirectory() const; ///< may be empty

  private:
    void settle(const ParameterSource& source);

    int key_;
    int id_ = -1;
    MPU_PARAMS_t* block_ = nullptr;
};

/** Directories of a slot below a common base directory. */
std::string mmsgDirectoryOf(const std::string& base, U32_t slot);

} // namespace blade

#endif
