#include "common/endpoint.h"

#include "mpu/event.h"

#include <sys/un.h>

namespace tools {

static_assert(sizeof(sockaddr_un::sun_path) == SOCKET_PATH_MAX + 1);

std::string endpointSocketName(U32_t endpoint) {
    return endpoint < ENDPOINT_COUNT ? MPU_endpointName(static_cast<U8_t>(endpoint)) : "";
}

std::string endpointSocketPath(const std::string& directory, U32_t endpoint) {
    return directory + "/" + endpointSocketName(endpoint);
}

} // namespace tools
