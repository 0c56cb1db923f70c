#include "sink.h"

#include "sinks.h"

namespace evbridge {
namespace {

constexpr char JOURNAL_SOCKET[] = "/run/systemd/journal/socket";

// What stands behind the beginning; nothing: it begins otherwise.
std::optional<std::string> behind(const std::string& text, const std::string& beginning) {
    return text.starts_with(beginning) ? std::optional(text.substr(beginning.size()))
                                       : std::nullopt;
}

std::unique_ptr<Channel> tlsChannel(const std::string& text, const SinkOptions& options) {
    if (options.tls.ca.empty()) {
        throw std::invalid_argument("--to syslog:tls:... needs --ca");
    }
    Place place = inetPlace(text, SOCK_STREAM);
    place.tlsName = options.tlsName;
    return std::make_unique<Channel>(std::move(place), options.tls);
}

std::unique_ptr<Sink> openSyslog(const std::string& to, const SinkOptions& options) {
    const U32_t enterprise = options.enterprise;
    if (const auto path = behind(to, "unix:")) {
        return syslogSink(std::make_unique<Channel>(unixPlace(*path)), false, enterprise);
    }
    if (const auto place = behind(to, "udp:")) {
        return syslogSink(std::make_unique<Channel>(inetPlace(*place, SOCK_DGRAM)), false,
                          enterprise);
    }
    if (const auto place = behind(to, "tcp:")) {
        return syslogSink(std::make_unique<Channel>(inetPlace(*place, SOCK_STREAM)), true,
                          enterprise);
    }
    if (const auto place = behind(to, "tls:")) {
        return syslogSink(tlsChannel(*place, options), true, enterprise);
    }
    if (const auto place = behind(to, "relp:")) {
        return relpSink(std::make_unique<Channel>(inetPlace(*place, SOCK_STREAM)), enterprise);
    }
    return nullptr;
}

} // namespace

std::unique_ptr<Sink> openSink(const SinkOptions& options, U64_t suppressed) {
    if (const auto place = behind(options.to, "syslog:")) {
        if (auto sink = openSyslog(*place, options)) {
            return sink;
        }
    }
    if (const auto place = behind(options.to, "snmp:")) {
        return snmpSink(*place, options.snmp, options.enterprise, suppressed);
    }
    if (const auto path = behind(options.to, "journal:")) {
        return journalSink(std::make_unique<Channel>(unixPlace(*path)));
    }
    if (options.to == "journal") {
        return journalSink(std::make_unique<Channel>(unixPlace(JOURNAL_SOCKET)));
    }
    throw std::invalid_argument("'" + options.to +
                                "' is no receiver: syslog:unix:PATH, syslog:udp:PLACE, "
                                "syslog:tcp:PLACE, syslog:tls:PLACE, syslog:relp:PLACE, "
                                "snmp:PLACE, journal or journal:PATH");
}

} // namespace evbridge
