#include "syslog_form.h"

#include "evctl/views/event_view.h"

#include <algorithm>

namespace evbridge {
namespace {

constexpr U32_t LOCAL0 = 16 * 8;

/** A word of the header: without blanks, not longer than the protocol takes it. */
std::string wordOf(std::string text, std::size_t longest) {
    std::ranges::replace(text, ' ', '_');
    return text.empty() ? "-" : text.substr(0, longest);
}

std::string parameter(const std::string& name, const std::string& value) {
    std::string escaped;
    for (const char letter : value) {
        if (letter == '"' || letter == '\\' || letter == ']') {
            escaped += '\\';
        }
        escaped += letter;
    }
    return " " + name + "=\"" + escaped + "\"";
}

// Not within a character of several bytes.
std::string cutText(const std::string& text) {
    std::size_t length = std::min(text.size(), TEXT_LENGTH);
    while (length > 0 && length < text.size() && (text[length] & 0xC0) == 0x80) {
        --length;
    }
    return text.substr(0, length);
}

} // namespace

std::string syslogMessage(const Report& report, U32_t enterprise) {
    std::string message = "<" + std::to_string(LOCAL0 + report.severity) + ">1 " + report.time +
                          " " + wordOf(report.host, 255) + " emp " + wordOf(report.source, 128) +
                          " " + wordOf(report.messageId, 32) + " [" + report.kind + "@" +
                          std::to_string(enterprise);
    for (const auto& [name, value] : report.fields) {
        message += parameter(name, value);
    }
    if (!report.data.empty()) {
        message += parameter(
            "data", evctl::hexDigits(report.data.first(std::min(report.data.size(), DATA_LENGTH))));
    }
    const std::string text = cutText(report.text);
    if (report.data.size() > DATA_LENGTH || text.size() < report.text.size()) {
        message += parameter("cut", "1");
    }
    return message + "] " + text;
}

} // namespace evbridge
