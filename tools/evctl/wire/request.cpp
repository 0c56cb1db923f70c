#include "evctl/wire/request.h"

#include "common/cli.h"
#include "common/named_option.h"

#include <algorithm>
#include <sstream>

namespace evctl {

void addRequestOptions(CLI::App& command, RequestOptions& options) {
    addSwitchOptions(command, options.where);
    addNamedOption(command, "--endpoint", options.endpoint, tools::endpointNames,
                   MMSG_E_MAX_DEFINED_EPIDS - 1, "Endpoint to ask as");
    command.add_option("--timeout", options.timeout, "Wait so long for each answer")
        ->type_name("SECONDS")
        ->default_str("20")
        ->check(tools::decimalNumber(0.001, 1e6));
}

void setFieldText(U8_t* field, size_t size, const std::string& text) {
    std::fill_n(field, size, U8_t{0});
    std::copy_n(text.begin(), std::min(size, text.size()), field);
}

Requester::Requester(const RequestOptions& options)
    : options_(options), session_(switchDirectory(options.where), options.endpoint) {}

Bytes Requester::ask(const Bytes& message, size_t bodyLength) {
    auto timeout = std::chrono::ceil<std::chrono::milliseconds>(
        std::chrono::duration<double>(options_.timeout));
    std::optional<Bytes> reply = session_.request(message, timeout);
    if (!reply) {
        std::ostringstream text;
        text << "no answer from the event manager within " << options_.timeout << " s";
        throw SessionError(text.str());
    }
    if (reply->size() < sizeof(MMCH_t) + bodyLength) {
        throw SessionError("an answer of " + std::to_string(reply->size()) +
                           " bytes came, too short");
    }
    return *std::move(reply);
}

} // namespace evctl
