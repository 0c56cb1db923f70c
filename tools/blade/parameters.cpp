#include "parameters.h"

#include "configuration.h"
#include "directories.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <unistd.h>

namespace blade {
namespace {

std::string slotDirectory(const std::string& base, U32_t slot) {
    return base + "/slot" + std::to_string(slot);
}

std::string contentOf(const std::string& path) {
    std::ifstream file(path);
    std::ostringstream content;
    if (!file || !(content << file.rdbuf())) {
        throw BladeError("cannot read parameter file " + path + ": " + strerror(errno));
    }
    return content.str();
}

/** The parameter file and the lines that go over it, as one file that needs no place on disk. */
class JoinedFile {
  public:
    explicit JoinedFile(const ParameterSource& source)
        : descriptor_(memfd_create("parameters", MFD_CLOEXEC)) {
        std::string text = contentOf(source.file) + "\n";
        for (const std::string& line : source.extras) {
            text += line + "\n";
        }
        if (descriptor_ < 0 ||
            write(descriptor_, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
            throw BladeError(std::string("cannot hold the parameters: ") + strerror(errno));
        }
    }
    ~JoinedFile() { close(descriptor_); }
    JoinedFile(const JoinedFile&) = delete;
    JoinedFile& operator=(const JoinedFile&) = delete;

    std::string path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }

  private:
    int descriptor_;
};

/** Throws when processes are attached to a block under @p key: creation would take it from them. */
void requireUnused(int key) {
    shmid_ds status{};
    int id = shmget(key, 0, 0);
    if (id >= 0 && shmctl(id, IPC_STAT, &status) == 0 && status.shm_nattch > 0) {
        throw BladeError("a parameter block under key " + std::to_string(key) +
                         " is in use: is this blade up already?");
    }
}

std::string textOf(const char (&field)[EMP_DIRECTORY_TEXT_SIZE]) {
    return {field, strnlen(field, sizeof(field))};
}

void putText(char (&field)[EMP_DIRECTORY_TEXT_SIZE], const std::string& text) {
    if (text.size() >= sizeof(field)) {
        throw BladeError("directory of " + std::to_string(text.size()) +
                         " characters, more than the parameter block holds: " + text);
    }
    memset(field, 0, sizeof(field));
    memcpy(field, text.data(), text.size());
}

bool namesNoDirectory(const MPU_PARAMS_t& block) {
    return textOf(block.mmsgDirectory).empty() && textOf(block.nvramDirectory).empty() &&
           textOf(block.logDirectory).empty();
}

void putDirectories(MPU_PARAMS_t& block, const std::string& base) {
    std::string directory = slotDirectory(base, block.slotId);
    putText(block.mmsgDirectory, mmsgDirectoryOf(base, block.slotId));
    putText(block.nvramDirectory, directory + "/nvram");
    putText(block.logDirectory, directory + "/log");
}

/** What the event manager opens by name. */
void requireOwnFiles(const std::string& nvram) {
    requireOwnFile(nvram + EMP_LOG_FILE_NAME);
    requireOwnFile(nvram + EMP_DEBUG_LOG_FILE_NAME);
    requireOwnDirectory(nvram + EMP_AEL_DIRECTORY_NAME);
}

void check(const MPU_PARAMS_t& block, const std::string& file) {
    if (block.version != MPU_PARAMS_VERSION) {
        throw BladeError(file + ": Version is " + std::to_string(U32_t{block.version}) +
                         ", processes of the blade take " + std::to_string(MPU_PARAMS_VERSION) +
                         " only");
    }
    if (textOf(block.mmsgDirectory).empty() || textOf(block.nvramDirectory).empty()) {
        throw BladeError(file + ": MmsgDirectory and NvramDirectory must be given");
    }
}

} // namespace

std::string mmsgDirectoryOf(const std::string& base, U32_t slot) {
    return slotDirectory(base, slot) + "/mmsg";
}

ParameterBlock::ParameterBlock(const ParameterSource& source, int key) : key_(key) {
    JoinedFile joined(source);
    requireUnused(key_);
    setenv("NONXML_FILE", joined.path().c_str(), 1);
    block_ = MPU_createMpuParams(&id_, key_);
    unsetenv("NONXML_FILE");
    if (block_ == nullptr) {
        throw BladeError("cannot create the parameter block under key " + std::to_string(key_));
    }
    try {
        settle(source);
    } catch (...) {
        MPU_deleteMpuParams(id_);
        throw;
    }
}

void ParameterBlock::settle(const ParameterSource& source) {
    bool inBase = !source.base.empty() || namesNoDirectory(*block_);
    if (inBase) {
        putDirectories(*block_, source.base.empty() ? defaultBase() : source.base);
    }
    check(*block_, source.file);
    // Below a base, its own slot's directory and that itself are the blade's, too.
    size_t ownDepth = inBase ? 3 : 1;
    putText(block_->mmsgDirectory, ownDirectory(mmsgDirectory(), ownDepth, source.group));
    putText(block_->nvramDirectory, ownDirectory(nvramDirectory(), ownDepth));
    if (!logDirectory().empty()) {
        putText(block_->logDirectory, ownDirectory(logDirectory(), ownDepth));
    }
    requireOwnFiles(nvramDirectory());
}

ParameterBlock::~ParameterBlock() {
    MPU_deleteMpuParams(id_);
}

std::string ParameterBlock::mmsgDirectory() const {
    return textOf(block_->mmsgDirectory);
}

std::string ParameterBlock::nvramDirectory() const {
    return textOf(block_->nvramDirectory);
}

std::string ParameterBlock::logDirectory() const {
    return textOf(block_->logDirectory);
}

} // namespace blade
