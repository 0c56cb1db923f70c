#include "sink.h"

#include "endpoint_text.h"
#include "evctl/event_forms.h"
#include "evctl/event_text.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <linux/sockios.h>
#include <optional>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace evbridge {
namespace {

constexpr char JOURNAL_SOCKET[] = "/run/systemd/journal/socket";

// How long a receiver may take nothing.
constexpr std::chrono::seconds SEND_TIME{5};

// What a message that its socket does not take is cut to; every receiver takes so much.
constexpr std::size_t CUT_LENGTH = 1024;

/** Where a sink sends to. */
struct Place {
    int family = AF_UNIX;
    int type = SOCK_DGRAM;
    sockaddr_storage address{};
    socklen_t length = 0;
    std::string text;
};

Place unixPlace(const std::string& path) {
    Place place;
    auto& address = reinterpret_cast<sockaddr_un&>(place.address);
    if (path.empty() || path.size() >= sizeof(address.sun_path)) {
        throw std::invalid_argument("'" + path + "' is no path of a socket");
    }
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    place.length = sizeof(address);
    place.text = path;
    return place;
}

Place inetPlace(const std::string& text, int type) {
    const auto endpoint = evarchive::endpointOf(text, asio::ip::address_v4::loopback());
    if (endpoint.port() == 0) {
        throw std::invalid_argument("port 0 is nobody's");
    }
    Place place;
    place.family = endpoint.protocol().family();
    place.type = type;
    memcpy(&place.address, endpoint.data(), endpoint.size());
    place.length = static_cast<socklen_t>(endpoint.size());
    place.text = evarchive::textOfEndpoint(endpoint);
    return place;
}

/** A socket that connects when it is needed. */
class SocketSink : public Sink {
  public:
    explicit SocketSink(Place place) : place_(std::move(place)) {}
    ~SocketSink() override { drop(); }
    SocketSink(const SocketSink&) = delete;
    SocketSink& operator=(const SocketSink&) = delete;

    void confirm() override {
        if (place_.type == SOCK_STREAM && descriptor_ >= 0) {
            awaitAcknowledgement();
        }
    }

  protected:
    void put(std::string message) {
        if (descriptor_ < 0) {
            connect();
        }
        std::size_t sent = 0;
        while (sent < message.size()) {
            const ssize_t size =
                ::send(descriptor_, message.data() + sent, message.size() - sent, MSG_NOSIGNAL);
            if (size >= 0) {
                sent += static_cast<std::size_t>(size);
            } else if (errno == EMSGSIZE && message.size() > CUT_LENGTH) {
                message.resize(CUT_LENGTH);
            } else if (errno != EINTR) {
                fail(strerror(errno));
            }
        }
    }

    bool isStream() const { return place_.type == SOCK_STREAM; }

  private:
    void connect() {
        descriptor_ = socket(place_.family, place_.type | SOCK_CLOEXEC, 0);
        const timeval wait{SEND_TIME.count(), 0};
        setsockopt(descriptor_, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof(wait));
        if (::connect(descriptor_, reinterpret_cast<const sockaddr*>(&place_.address),
                      place_.length) != 0) {
            fail(strerror(errno));
        }
    }

    // The receiver's system has it all, and the receiver is still there.
    void awaitAcknowledgement() {
        const auto end = std::chrono::steady_clock::now() + SEND_TIME;
        int unacknowledged = 0;
        while (ioctl(descriptor_, SIOCOUTQ, &unacknowledged) == 0 && unacknowledged > 0) {
            if (std::chrono::steady_clock::now() > end) {
                fail("it takes nothing");
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        char byte = 0;
        const ssize_t size = recv(descriptor_, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
        if (size == 0 || (size < 0 && errno != EAGAIN && errno != EWOULDBLOCK)) {
            fail("it has closed the connection");
        }
    }

    [[noreturn]] void fail(const std::string& why) {
        drop();
        throw SinkAway(place_.text + ": " + why);
    }

    void drop() {
        if (descriptor_ >= 0) {
            close(descriptor_);
            descriptor_ = -1;
        }
    }

    Place place_;
    int descriptor_ = -1;
};

/** RFC 5424; over TCP each message has its length in front (RFC 6587). */
class SyslogSink final : public SocketSink {
  public:
    using SocketSink::SocketSink;

    void send(const evctl::EventView& event) override {
        std::string message = evctl::syslogLine(event);
        message.pop_back(); // the line feed
        put(isStream() ? std::to_string(message.size()) + " " + message : message);
    }
};

/** The journal's own protocol: fields, one datagram an event. */
class JournalSink final : public SocketSink {
  public:
    using SocketSink::SocketSink;

    void send(const evctl::EventView& event) override {
        const EmpEvLogHeader_t& header = *event.header;
        std::string text;
        const std::string message = evctl::textColumn(event);
        const std::string id = evctl::eventIdText(header.evSource, header.evId);
        add(text, "MESSAGE", message.empty() ? id : message);
        add(text, "MESSAGE_ID", "6f1d3c0a52b94b7ea3a1d0c6c74e8d21");
        add(text, "PRIORITY", priorityOf(header.evType));
        add(text, "SYSLOG_IDENTIFIER", tools::endpointNames.brief(header.evSource));
        add(text, "EMP_ENCLOSURE", evctl::escapedText(header.evEnclosureId));
        add(text, "EMP_BLADE", evctl::escapedText(header.evBladeId));
        add(text, "EMP_SLOT", std::to_string(U32_t{header.evSlotId}));
        add(text, "EMP_INSTANCE", std::to_string(U32_t{header.evInstanceNumber}));
        add(text, "EMP_SEQUENCE", std::to_string(U32_t{header.evSequenceId}));
        add(text, "EMP_TIME", evctl::isoTime(header.evTime));
        add(text, "EMP_TYPE", tools::eventTypeNames.brief(header.evType));
        add(text, "EMP_CATEGORY", tools::categoryNames.brief(header.evCategory));
        add(text, "EMP_ID", id);
        add(text, "EMP_ID_VERSION", std::to_string(header.evIdVersion));
        add(text, "EMP_DATA",
            {reinterpret_cast<const char*>(event.data.data()), event.data.size()});
        put(text);
    }

  private:
    static std::string priorityOf(U32_t type) {
        return type == EMP_E_TYPE_ERROR ? "3" : type == EMP_E_TYPE_WARNING ? "4" : "6";
    }

    // With its length, so that any bytes may be in it.
    static void add(std::string& text, const char* name, const std::string& value) {
        text.append(name).append(1, '\n');
        for (unsigned shift = 0; shift < 64; shift += 8) {
            text += static_cast<char>((U64_t{value.size()} >> shift) & 0xFF);
        }
        text.append(value).append(1, '\n');
    }
};

// What stands behind the beginning; nothing: it begins otherwise.
std::optional<std::string> behind(const std::string& text, const std::string& beginning) {
    return text.starts_with(beginning) ? std::optional(text.substr(beginning.size()))
                                       : std::nullopt;
}

} // namespace

std::unique_ptr<Sink> openSink(const std::string& to) {
    if (const auto path = behind(to, "syslog:unix:")) {
        return std::make_unique<SyslogSink>(unixPlace(*path));
    }
    if (const auto place = behind(to, "syslog:udp:")) {
        return std::make_unique<SyslogSink>(inetPlace(*place, SOCK_DGRAM));
    }
    if (const auto place = behind(to, "syslog:tcp:")) {
        return std::make_unique<SyslogSink>(inetPlace(*place, SOCK_STREAM));
    }
    if (const auto path = behind(to, "journal:")) {
        return std::make_unique<JournalSink>(unixPlace(*path));
    }
    if (to == "journal") {
        return std::make_unique<JournalSink>(unixPlace(JOURNAL_SOCKET));
    }
    throw std::invalid_argument("'" + to +
                                "' is no receiver: syslog:unix:PATH, syslog:udp:PLACE, "
                                "syslog:tcp:PLACE, journal or journal:PATH");
}

} // namespace evbridge
