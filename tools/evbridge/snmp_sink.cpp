#include "evctl/views/event_view.h"
#include "report.h"
#include "sinks.h"

#include <net-snmp/net-snmp-config.h>
// Theirs come in this order.
#include <net-snmp/net-snmp-includes.h>

#include <array>
#include <chrono>
#include <ctime>
#include <utility>

namespace evbridge {
namespace {

using Clock = std::chrono::steady_clock;

// How often, and how long, an answer is waited for.
constexpr int RETRIES = 3;
constexpr long ANSWER_MICROSECONDS = 1'000'000;

constexpr std::chrono::seconds RATE_SPAN{60};

constexpr std::size_t SHORT_TEXT = 255;
constexpr std::size_t LONG_TEXT = 1024;

/** The objects and notifications of EVENT-MANAGER-MIB, by their last number. */
enum Notification : oid { EVENT = 1, OVERWRITTEN, SUPPRESSED };
enum Object : oid {
    ENCLOSURE = 1,
    BLADE,
    SLOT,
    INSTANCE,
    GENERATION,
    SEQUENCE,
    TIME,
    SOURCE,
    TYPE,
    CATEGORY,
    ID,
    TEXT,
    DATA,
    FIRST,
    LAST,
    COUNT,
};

constexpr oid UP_TIME[] = {1, 3, 6, 1, 2, 1, 1, 3, 0};
constexpr oid TRAP_OID[] = {1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0};

/** One message. */
class Notice {
  public:
    Notice(U32_t enterprise, Notification which, u_long upTime)
        : base_{1, 3, 6, 1, 4, 1, enterprise, 1}, pdu_(snmp_pdu_create(SNMP_MSG_INFORM)) {
        if (pdu_ == nullptr) {
            throw std::bad_alloc();
        }
        addVariable(UP_TIME, std::size(UP_TIME), ASN_TIMETICKS, &upTime, sizeof(upTime));
        std::array<oid, 10> name = named(0, which);
        addVariable(TRAP_OID, std::size(TRAP_OID), ASN_OBJECT_ID, name.data(),
                    sizeof(oid) * name.size());
    }
    ~Notice() { snmp_free_pdu(pdu_); }
    Notice(const Notice&) = delete;
    Notice& operator=(const Notice&) = delete;

    void add(Object which, U64_t number) {
        const u_long value = number;
        addObject(which, ASN_UNSIGNED, &value, sizeof(value));
    }
    void addEnumerated(Object which, long value) {
        addObject(which, ASN_INTEGER, &value, sizeof(value));
    }
    void add(Object which, std::span<const U8_t> bytes) {
        addObject(which, ASN_OCTET_STR, bytes.data(), bytes.size());
    }
    void add(Object which, const std::string& text, std::size_t longest = SHORT_TEXT) {
        addObject(which, ASN_OCTET_STR, text.data(), std::min(text.size(), longest));
    }

    /** To be sent, which frees it. */
    netsnmp_pdu* release() { return std::exchange(pdu_, nullptr); }

  private:
    std::array<oid, 10> named(oid group, oid which) const {
        std::array<oid, 10> name{};
        std::copy(base_.begin(), base_.end(), name.begin());
        name[8] = group;
        name[9] = which;
        return name;
    }

    void addObject(Object which, u_char type, const void* value, std::size_t size) {
        const std::array<oid, 10> name = named(1, which);
        std::array<oid, 11> instance{};
        std::copy(name.begin(), name.end(), instance.begin());
        addVariable(instance.data(), instance.size(), type, value, size);
    }

    void addVariable(const oid* name, std::size_t length, u_char type, const void* value,
                     std::size_t size) {
        if (snmp_pdu_add_variable(pdu_, name, length, type, value, size) == nullptr) {
            throw std::bad_alloc();
        }
    }

    std::array<oid, 8> base_;
    netsnmp_pdu* pdu_;
};

/** DateAndTime, in UTC. */
std::array<U8_t, 11> dateAndTime(U32_t seconds) {
    const time_t time = seconds;
    tm parts{};
    gmtime_r(&time, &parts);
    const int year = parts.tm_year + 1900;
    const int bytes[] = {year >> 8,
                         year & 0xFF,
                         parts.tm_mon + 1,
                         parts.tm_mday,
                         parts.tm_hour,
                         parts.tm_min,
                         parts.tm_sec,
                         0,
                         '+',
                         0,
                         0};
    std::array<U8_t, 11> text{};
    std::copy(std::begin(bytes), std::end(bytes), text.begin());
    return text;
}

void fill(Notice& notice, const Entry& entry) {
    const sources::EventView event = entry.event();
    const EmpEvLogHeader_t& header = *event.header;
    notice.add(ENCLOSURE, evctl::escapedText(header.evEnclosureId));
    notice.add(BLADE, evctl::escapedText(header.evBladeId));
    notice.add(SLOT, header.evSlotId);
    notice.add(INSTANCE, header.evInstanceNumber);
    notice.add(GENERATION, entry.generation.value_or(0));
    if (entry.gone) {
        notice.add(FIRST, entry.gone->first);
        notice.add(LAST, entry.gone->last);
        notice.add(COUNT, entry.gone->last - entry.gone->first + 1);
        return;
    }
    const Report report = reportOf(entry);
    notice.add(SEQUENCE, header.evSequenceId);
    notice.add(TIME, dateAndTime(header.evTime));
    notice.add(SOURCE, report.source);
    notice.addEnumerated(TYPE, header.evType);
    notice.add(CATEGORY, tools::categoryNames.brief(header.evCategory));
    notice.add(ID, header.evId);
    notice.add(TEXT, report.text, LONG_TEXT);
    notice.add(DATA, report.data.first(std::min(report.data.size(), DATA_LENGTH)));
}

class SnmpSink final : public Sink {
  public:
    SnmpSink(const std::string& place, const SnmpOptions& options, U32_t enterprise,
             U64_t suppressed)
        : place_(inetPlace(place, SOCK_DGRAM)), options_(options), enterprise_(enterprise),
          confirmed_(suppressed), suppressed_(suppressed) {
        // No configuration of the library's own, and no files of its state.
        netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
        netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
        snmp_disable_log();
    }
    ~SnmpSink() override { drop(); }
    SnmpSink(const SnmpSink&) = delete;
    SnmpSink& operator=(const SnmpSink&) = delete;

    bool takes(const Entry& entry) const override {
        return entry.gone || entry.event().header->evType > EMP_E_TYPE_INFORMATION;
    }

    void send(const Entry& entry) override {
        if (Clock::now() - spanBegan_ >= RATE_SPAN) {
            beginSpan();
        }
        if (options_.rate > 0 && sent_ >= options_.rate) {
            ++suppressed_;
            return;
        }
        Notice notice(enterprise_, entry.gone ? OVERWRITTEN : EVENT, upTime());
        fill(notice, entry);
        inform(notice);
        ++sent_;
    }

    void confirm() override { confirmed_ = suppressed_; }

    void settle(bool isEnd) override {
        suppressed_ = confirmed_;
        if (suppressed_ == 0 || (!isEnd && Clock::now() - spanBegan_ < RATE_SPAN)) {
            return;
        }
        Notice notice(enterprise_, SUPPRESSED, upTime());
        notice.add(COUNT, suppressed_);
        inform(notice);
        suppressed_ = confirmed_ = 0;
        beginSpan();
    }

    U64_t suppressed() const override { return confirmed_; }

  private:
    void beginSpan() {
        spanBegan_ = Clock::now();
        sent_ = 0;
    }

    u_long upTime() const {
        using Ticks = std::chrono::duration<u_long, std::centi>;
        return std::chrono::duration_cast<Ticks>(Clock::now() - began_).count() & 0xFFFFFFFFU;
    }

    void open();
    void inform(Notice& notice);

    void drop() {
        if (session_ != nullptr) {
            snmp_sess_close(session_);
            session_ = nullptr;
        }
    }

    [[noreturn]] void fail(const std::string& why) {
        drop();
        throw SinkAway(place_.text + ": " + why);
    }

    Place place_;
    SnmpOptions options_;
    U32_t enterprise_;
    void* session_ = nullptr;
    Clock::time_point began_ = Clock::now();
    Clock::time_point spanBegan_ = began_;
    U32_t sent_ = 0; ///< within the span
    U64_t confirmed_;
    U64_t suppressed_;
};

void SnmpSink::open() {
    netsnmp_session session{};
    snmp_sess_init(&session);
    std::string peer = (place_.family == AF_INET6 ? "udp6:" : "udp:") + place_.text;
    session.version = SNMP_VERSION_2c;
    session.peername = peer.data();
    session.community = reinterpret_cast<u_char*>(options_.community.data());
    session.community_len = options_.community.size();
    session.retries = RETRIES;
    session.timeout = ANSWER_MICROSECONDS;
    session_ = snmp_sess_open(&session);
    if (session_ == nullptr) {
        fail("no session: " + std::string(snmp_api_errstring(session.s_snmp_errno)));
    }
}

void SnmpSink::inform(Notice& notice) {
    if (session_ == nullptr) {
        open();
    }
    netsnmp_pdu* answer = nullptr;
    const int status = snmp_sess_synch_response(session_, notice.release(), &answer);
    const long problem = answer != nullptr ? answer->errstat : SNMP_ERR_NOERROR;
    snmp_free_pdu(answer);
    if (status != STAT_SUCCESS) {
        fail(status == STAT_TIMEOUT ? "it does not answer" : "it cannot be reached");
    }
    if (problem != SNMP_ERR_NOERROR) {
        fail(std::string("it refuses: ") + snmp_errstring(static_cast<int>(problem)));
    }
}

} // namespace

std::unique_ptr<Sink> snmpSink(const std::string& place, const SnmpOptions& options,
                               U32_t enterprise, U64_t suppressed) {
    return std::make_unique<SnmpSink>(place, options, enterprise, suppressed);
}

} // namespace evbridge
