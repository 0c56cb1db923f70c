#include "evctl/wire/archiver_address.h"

#include "common/text.h"

#include <arpa/inet.h>
#include <charconv>
#include <cstring>
#include <netdb.h>

namespace evctl {
namespace {

[[noreturn]] void refuse(const std::string& text, const std::string& why) {
    throw std::runtime_error("'" + text + "': " + why);
}

U16_t parsePort(const std::string& text, const std::string& port) {
    U16_t value = 0;
    const char* end = port.data() + port.size();
    auto [stop, error] = std::from_chars(port.data(), end, value);
    if (error != std::errc() || stop != end || value == 0) {
        refuse(text, "the port must be a number from 1 to 65535");
    }
    return value;
}

IpAddr_t resolve(const std::string& text, const std::string& host) {
    struct addrinfo hints {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    struct addrinfo* found = nullptr;
    if (int error = getaddrinfo(host.c_str(), nullptr, &hints, &found); error != 0) {
        refuse(text, gai_strerror(error));
    }
    const auto* address = reinterpret_cast<const struct sockaddr_in*>(found->ai_addr);
    IpAddr_t result{};
    memcpy(result.bytes, &address->sin_addr, sizeof(result.bytes));
    freeaddrinfo(found);
    return result;
}

} // namespace

ArchiverAddress parseArchiver(const std::string& text) {
    if (text == "off") {
        return {};
    }
    size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0) {
        refuse(text, "neither HOST:PORT nor off");
    }
    ArchiverAddress archiver;
    archiver.port = parsePort(text, text.substr(colon + 1));
    archiver.host = resolve(text, text.substr(0, colon));
    if (tools::hostText(archiver.host) == "0.0.0.0") {
        refuse(text, "no address of a host; 'off' sets none");
    }
    return archiver;
}

Bytes makeSetArchiver(U32_t requestor, const ArchiverAddress& archiver) {
    Bytes message =
        makeMessage(EMP_E_MSGS_SET_EVENT_ARCHIVER, requestor, sizeof(EmpSetEvArchiverMsg_t));
    auto& body = *reinterpret_cast<EmpSetEvArchiverMsg_t*>(message.data() + MMCH_SIZE);
    body.evArchiverIpAddress = archiver.host;
    body.evArchiverTcpPort = archiver.port;
    return message;
}

} // namespace evctl
