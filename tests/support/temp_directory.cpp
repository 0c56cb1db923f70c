#include "temp_directory.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

#include <sys/stat.h>

namespace support {

TempDirectory::TempDirectory() : path_("/tmp/bladetest.XXXXXX") {
    if (mkdtemp(path_.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "mkdtemp");
    }
}

TempDirectory::~TempDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string TempDirectory::makeDirectory(const std::string& name) const {
    if (mkdir(file(name).c_str(), 0700) != 0) {
        throw std::system_error(errno, std::generic_category(), "mkdir " + file(name));
    }
    return file(name);
}

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content << std::flush;
    if (!file) {
        throw std::runtime_error("cannot write " + path);
    }
}

} // namespace support
