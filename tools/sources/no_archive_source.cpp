/** Archives, where none are read. */
#include "sources/source.h"

#include <stdexcept>

namespace sources {

Sources archiveSources(const std::string& path, const OpenOptions& /*options*/) {
    throw std::runtime_error(path +
                             ": an archive; this program, built for the board, does not read it");
}

} // namespace sources
