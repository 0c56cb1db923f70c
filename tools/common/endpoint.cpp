#include "common/endpoint.h"

#include "common/names.h"

#include <sys/un.h>

namespace tools {

static_assert(sizeof(sockaddr_un::sun_path) == SOCKET_PATH_MAX + 1);

std::string endpointSocketName(U32_t endpoint) {
    const EnumName* row = endpointNames.find(endpoint);
    return row ? std::string(row->brief) : std::string();
}

std::string endpointSocketPath(const std::string& directory, U32_t endpoint) {
    return directory + "/" + endpointSocketName(endpoint);
}

} // namespace tools
