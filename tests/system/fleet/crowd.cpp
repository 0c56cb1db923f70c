#include "crowd.h"

#include "evlog/evlog.h"
#include "link_messages.h"

#include <algorithm>
#include <arpa/inet.h>
#include <csignal>
#include <cstring>
#include <map>
#include <poll.h>
#include <ranges>
#include <stdexcept>
#include <sys/socket.h>

namespace fleet {

using namespace support;

namespace {

constexpr std::size_t UNDER_WAY = 64; ///< events of one that are sent and not taken yet
constexpr std::size_t DATA_SIZE = 100;
constexpr int PASSES = 500; ///< at a time: 32 KB of messages
constexpr char ENCLOSURE[] = "CROWD";

std::string nameOf(U32_t number) {
    return "REAL-" + std::to_string(number);
}

Blade& named(Blade& blade, U32_t number) {
    MPU_PARAMS_t& params = blade.params();
    params.slotId = static_cast<decltype(params.slotId)>(number % 16);
    const std::string name = nameOf(number);
    memset(params.serialStr, 0, sizeof(params.serialStr));
    memset(params.chassisSN, 0, sizeof(params.chassisSN));
    memcpy(params.serialStr, name.data(), name.size());
    memcpy(params.chassisSN, ENCLOSURE, sizeof(ENCLOSURE));
    return blade;
}

using Events = std::map<U32_t, Bytes>;

Events loggedIn(const std::string& path) {
    EvlogImage_t image;
    if (evlogLoadFile(path.c_str(), &image) != 0) {
        throw std::runtime_error(path + ": cannot be read");
    }
    Events found;
    EvlogCallbacks_t callbacks;
    callbacks.onRecord = [&found](const EvlogRecord_t& record) {
        if (record.taken && !evlogIsDummy(*record.header)) {
            const auto* bytes = reinterpret_cast<const U8_t*>(record.header);
            found[record.header->evSequenceId] = Bytes(bytes + 8, bytes + 160 + record.body.size());
        }
    };
    callbacks.onFinding = [&path](const EvlogFinding_t& finding) {
        throw std::runtime_error(path + ": damaged at " + std::to_string(finding.offset));
    };
    evlogWalk(image, callbacks);
    return found;
}

} // namespace

struct Crowd::One {
    explicit One(U32_t number_) : number(number_), emp(named(blade, number_)) {
        emp.start();
        emp.process.waitForOutput("Wait for Event Messages.");
        Bytes data(DATA_SIZE);
        const std::string name = nameOf(number);
        std::copy(name.begin(), name.end(), data.begin());
        event = eventMessage(18, data);
    }

    U32_t number;
    Blade blade;
    RunningEmp emp;
    Bytes event;
    Bytes received;
    std::deque<Clock::time_point> sentAt;
    U64_t sent = 0; ///< since log() was called
    U64_t taken = 0;
    U64_t takenInTime = 0;
    std::size_t replies = 0;
};

Crowd::Crowd(U32_t size, U32_t alone, double rate) : size_(size), rate_(rate) {
    for (U32_t number = 0; number < size + alone; ++number) {
        all_.emplace_back(number);
    }
}

Crowd::~Crowd() {
    for (One& one : all_) {
        one.emp.process.signal(SIGKILL);
        one.emp.process.wait();
    }
}

void Crowd::connectTo(const std::string& address, U16_t port) {
    in_addr number{};
    inet_pton(AF_INET, address.c_str(), &number);
    Bytes body(sizeof(number));
    memcpy(body.data(), &number, sizeof(number));
    put16(body, port);
    put16(body, 0);
    ask(makeMmsg({.type = 3, .local = {27}}, body));
}

void Crowd::pass() {
    Bytes passes;
    for (int i = 0; i < PASSES; ++i) {
        passes = joined({passes, bareMessage(4)}); // which is answered by nothing
    }
    ask(joined({passes, bareMessage(5)}));
}

void Crowd::ask(const Bytes& request) {
    for (One& one : all_ | std::views::take(size_)) {
        one.replies = 0;
        one.emp.msm.send(request);
    }
    requireSoon(
        [this] {
            read(1);
            return std::ranges::all_of(all_ | std::views::take(size_),
                                       [](const One& one) { return one.replies > 0; });
        },
        "all to answer");
}

Intake Crowd::log(Clock::duration atLeast, const std::function<bool()>& until) {
    for (One& one : all_) {
        one.sent = one.taken = 0;
    }
    worst_ = {};
    const auto begin = Clock::now();
    auto now = begin;
    for (; now < begin + atLeast || (until && !until()); now = Clock::now()) {
        if (now > begin + atLeast + DEADLINE) {
            throw std::runtime_error("waited in vain while the crowd logged");
        }
        send(begin, now);
        read(1);
    }
    for (One& one : all_) {
        one.takenInTime =
            one.taken; // not what is still under way: the slower ones would seem quick
    }
    requireSoon(
        [this] {
            read(1);
            return std::ranges::all_of(all_, [](const One& one) { return one.sentAt.empty(); });
        },
        "all events to be taken");
    return {perSecond(0, size_, now - begin), perSecond(size_, all_.size(), now - begin),
            std::chrono::duration_cast<std::chrono::milliseconds>(worst_)};
}

double Crowd::perSecond(std::size_t first, std::size_t behind, Clock::duration time) const {
    U64_t taken = 0;
    for (std::size_t at = first; at < behind; ++at) {
        taken += all_[at].takenInTime;
    }
    return static_cast<double>(taken) / static_cast<double>(behind - first) /
           std::chrono::duration<double>(time).count();
}

void Crowd::send(Clock::time_point begin, Clock::time_point now) {
    const auto due = static_cast<U64_t>(rate_ * std::chrono::duration<double>(now - begin).count());
    for (One& one : all_) {
        while (one.sent < due && one.sentAt.size() < UNDER_WAY) {
            one.emp.msm.send(one.event);
            one.sentAt.push_back(Clock::now());
            ++one.sent;
        }
    }
}

void Crowd::read(int milliseconds) {
    std::vector<pollfd> ready;
    for (const One& one : all_) {
        ready.push_back({one.emp.msm.descriptor(), POLLIN, 0});
    }
    poll(ready.data(), ready.size(), milliseconds);
    for (std::size_t i = 0; i < ready.size(); ++i) {
        if (ready[i].revents != 0) {
            take(all_[i]);
        }
    }
}

void Crowd::take(One& one) {
    U8_t buffer[65'536];
    const ssize_t size = recv(one.emp.msm.descriptor(), buffer, sizeof(buffer), MSG_DONTWAIT);
    if (size <= 0) {
        throw std::runtime_error(nameOf(one.number) + " has ended: " + one.emp.process.output());
    }
    one.received.insert(one.received.end(), buffer, buffer + size);
    std::size_t at = 0;
    while (one.received.size() - at >= MMCH_SIZE) {
        MMCH_t header;
        memcpy(&header, one.received.data() + at, sizeof(header));
        if (one.received.size() - at < header.mmsg_length) {
            break;
        }
        at += header.mmsg_length;
        if (header.opcode.request.type != 1U) {
            ++one.replies;
            continue;
        }
        if (one.number < size_) {
            worst_ = std::max(worst_, Clock::now() - one.sentAt.front());
        }
        one.sentAt.pop_front();
        ++one.taken;
    }
    one.received.erase(one.received.begin(),
                       one.received.begin() + static_cast<std::ptrdiff_t>(at));
}

std::size_t Crowd::countAlive() {
    return static_cast<std::size_t>(
        std::ranges::count_if(all_, [](One& one) { return !one.emp.process.poll().has_value(); }));
}

std::size_t Crowd::countArchived(evarchive::StoreReader& archive) {
    const auto isArchived = [&archive](const One& one) {
        const auto series =
            archive.findSeries({{ENCLOSURE, nameOf(one.number), one.number % 16}, 0});
        const auto newest = series ? archive.newestGeneration(*series) : std::nullopt;
        Events logged = loggedIn(one.blade.logPath());
        if (!newest || logged.empty()) {
            return false;
        }
        archive.forEachEvent(newest->number, [&logged](const evarchive::StoredEvent& event) {
            const auto found = logged.find(event.sequenceId);
            if (found != logged.end() && found->second == event.image) {
                logged.erase(found);
            }
        });
        return logged.empty();
    };
    return static_cast<std::size_t>(
        std::ranges::count_if(all_ | std::views::take(size_), isArchived));
}

} // namespace fleet
