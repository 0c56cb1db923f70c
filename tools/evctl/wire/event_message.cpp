#include "evctl/wire/event_message.h"

#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <unistd.h>

namespace evctl {
namespace {

void checkDataLength(size_t length) {
    if (length > EMP_MAX_STRUCT) {
        throw std::runtime_error("more than 3848 bytes of event data");
    }
}

[[noreturn]] void failFile(const std::string& path, int error) {
    throw std::runtime_error(path + ": " + strerror(error));
}

} // namespace

Bytes makeEventMessage(const EventFields& fields, const Bytes& data) {
    checkDataLength(data.size());
    Bytes message = makeMessage(EMP_E_MSGS_LOG, fields.source, EMP_EVENT_HEADER_SIZE + data.size());
    auto& header = *reinterpret_cast<EmpEvLogHeader_t*>(message.data() + MMCH_SIZE);
    header.evType = fields.type;
    header.evCategory = fields.category;
    header.evIdVersion = fields.idVersion;
    header.evId = fields.id;
    std::copy(data.begin(), data.end(), message.begin() + EMP_EVENT_MMSG_SIZE);
    return message;
}

Bytes parseHexData(const std::string& text) {
    Bytes data;
    for (size_t at = 0; at < text.size();) {
        if (isspace(static_cast<unsigned char>(text[at])) != 0) {
            at++;
            continue;
        }
        U8_t byte = 0;
        const char* pair = text.data() + at;
        const char* end = pair + std::min<size_t>(2, text.size() - at);
        if (auto [stop, error] = std::from_chars(pair, end, byte, 16);
            error != std::errc() || stop != pair + 2) {
            throw std::runtime_error("'" + text.substr(at, 2) +
                                     "' is not a pair of hexadecimal digits");
        }
        data.push_back(byte);
        at += 2;
    }
    return data;
}

Bytes readDataFile(const std::string& path) {
    int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) {
        failFile(path, errno);
    }
    Bytes data(EMP_MAX_STRUCT + size_t{1});
    size_t length = 0;
    ssize_t count = 0;
    while (length < data.size() &&
           (count = read(descriptor, data.data() + length, data.size() - length)) > 0) {
        length += static_cast<size_t>(count);
    }
    int error = errno;
    close(descriptor);
    if (count < 0) {
        failFile(path, error);
    }
    checkDataLength(length);
    data.resize(length);
    return data;
}

MessageKind readEventMessage(const Bytes& message, EventView* event) {
    const MMCH_t& mmch = mmchOf(message);
    U32_t type = mmch.opcode.request.type;
    if (mmch.opcode.request.protocol != MMSG_E_PROTOCOL_EVENTMGR ||
        (type != EMP_E_MSGS_LOG && type != EMP_E_MSGS_ALTERNATE_LOG)) {
        return MessageKind::OTHER;
    }
    if (message.size() < EMP_EVENT_MMSG_SIZE) {
        return MessageKind::BAD_EVENT;
    }
    const auto* header = reinterpret_cast<const EmpEvLogHeader_t*>(message.data() + MMCH_SIZE);
    size_t arrived = message.size() - EMP_EVENT_MMSG_SIZE;
    if (header->evStructLength > arrived) {
        return MessageKind::BAD_EVENT;
    }
    *event = {header, {message.data() + EMP_EVENT_MMSG_SIZE, header->evStructLength}};
    return MessageKind::EVENT;
}

} // namespace evctl
