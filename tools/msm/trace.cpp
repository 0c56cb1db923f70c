#include "trace.h"

#include "common/names.h"

#include <cstdio>

namespace msm {

U64_t recipientsOf(const U32be_t (&bitmap)[2]) {
    return U64_t{U32_t{bitmap[0]}} | (U64_t{U32_t{bitmap[1]}} << 32);
}

std::string recipientsText(const U32be_t (&bitmap)[2]) {
    U64_t recipients = recipientsOf(bitmap);
    std::string text;
    for (U32_t endpoint = 0; endpoint < 64; ++endpoint) {
        if ((recipients >> endpoint) & 1) {
            text.append(text.empty() ? "" : " ").append(tools::endpointNames.brief(endpoint));
        }
    }
    return text.empty() ? "-" : text;
}

std::string headerText(const MMCH_t& header) {
    U8_t protocol = header.opcode.request.protocol;
    U32_t type = header.opcode.request.type;
    char numbers[96];
    snprintf(numbers, sizeof(numbers), "cont 0x%02x, dest %u, return_code %u, handle 0x%08x",
             U32_t{header.mmsg_cont}, U32_t{header.dest_ep}, U32_t{header.return_code},
             U32_t{header.handle});
    return tools::protocolNames.brief(protocol) + " " +
           tools::messageTypeNamesOf(protocol).brief(type) + ", " +
           std::to_string(U16_t{header.mmsg_length}) + " bytes, from " +
           tools::endpointNames.brief(header.requestor) + " to " +
           recipientsText(header.recipient_loc_bm) + ", other blade " +
           recipientsText(header.recipient_ob_bm) + ", " + numbers;
}

} // namespace msm
