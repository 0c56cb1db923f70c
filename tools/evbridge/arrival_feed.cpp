#include "engine.h"
#include "feed.h"
#include "id_runs.h"
#include "postgres/fleet_hub.h"
#include "postgres/pg_arrivals.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <stdexcept>

namespace evbridge {
namespace {

using evarchive::ArrivalPlace;
using evarchive::ArrivedEvent;
using evarchive::Level;
using evarchive::PgArrivals;
using evarchive::Say;
using evarchive::StoreError;
using Clock = std::chrono::steady_clock;

// Between two attempts to reach a server that is away while others are not.
constexpr std::chrono::seconds AGAIN{5};

// With a statement. One server of several that is slow gets more time each time it has not
// answered, so that it gets on. For a lone one nobody waits but who ends this program.
constexpr std::chrono::seconds LONGEST_PATIENCE{900};
constexpr std::chrono::seconds LONE_PATIENCE{60};

constexpr S64_t MINUTE = 60'000'000; // microseconds

constexpr std::string_view FIRST_WORD = "arrivals ";

/** How far one server's events were handed on. */
struct Reached {
    ArrivalPlace place{};

    std::string text(std::size_t number) const {
        char line[128];
        snprintf(line, sizeof(line),
                 "arrivals %zu %" PRId64 " %" PRId64 " %" PRId64 " %" PRId64 "\n", number,
                 place.received, place.log, place.generation, place.id);
        return line;
    }

    static std::optional<Reached> parse(const std::string& line, std::size_t number) {
        std::size_t found = 0;
        char rest = 0;
        Reached reached;
        ArrivalPlace& place = reached.place;
        const int read = std::sscanf(
            line.c_str(), "arrivals %zu %" SCNd64 " %" SCNd64 " %" SCNd64 " %" SCNd64 "%c", &found,
            &place.received, &place.log, &place.generation, &place.id, &rest);
        return read == 5 && found == number ? std::optional(reached) : std::nullopt;
    }
};

/**
 * An archive on a server, or on several: of each server the place among what came there that was
 * reached. A server that is away keeps its place, and the others' events go on. Bridges of before
 * kept the ids of each log instead; those are left out once more, and forgotten when everything has
 * been passed that was there at the start.
 */
class ArrivalFeed final : public Feed {
  public:
    ArrivalFeed(const FeedOptions& from, std::string position, Say say)
        : say_(std::move(say)), lag_(from.lag), patience_(from.patience) {
        evarchive::readerOf(from.place); // says what is wrong with it
        std::vector<std::string> places = evarchive::nodesOf(from.place);
        if (places.empty()) {
            places.push_back(from.place);
            patience_ = LONE_PATIENCE;
        }
        std::vector<Reached> reached = takeReached(position, places.size());
        done_ = parseLogRuns(position);
        for (std::size_t i = 0; i < places.size(); ++i) {
            const ArrivalPlace& place = reached[i].place;
            servers_.push_back({.address = places[i],
                                .place = place,
                                .next = place,
                                .kept = place,
                                .patience = patience_});
        }
        for (std::size_t i = 0; i < servers_.size(); ++i) {
            withServer(i, [&](Server& server) { open(server); });
        }
        requireAny();
    }

    Entries more(std::size_t most) override {
        for (;;) {
            Entries entries = look(most);
            if (!entries.empty() || given_ == 0) {
                return entries;
            }
            taken(); // nothing of it is handed on
        }
    }

    void taken() override {
        for (Server& server : servers_) {
            server.place = server.next;
            if (given_ > 0 || server.isWorthKeeping()) {
                server.kept = server.place;
            }
        }
        if (hasAll()) {
            done_.clear();
        }
    }

    bool hasAll() const override {
        return std::ranges::all_of(servers_, [](const Server& server) {
            return server.begun && server.place.received >= *server.begun;
        });
    }

    std::optional<U64_t> skip() override {
        for (Server& server : servers_) {
            open(server);
            server.place = server.kept = {.received = server.arrivals->now()};
        }
        return std::nullopt;
    }

    std::string position() const override {
        std::string lines;
        for (std::size_t i = 0; i < servers_.size(); ++i) {
            lines += Reached{servers_[i].kept}.text(i + 1);
        }
        return lines + textOf(done_);
    }

  private:
    struct Server {
        std::string address;
        std::unique_ptr<PgArrivals> arrivals{}; ///< none: it is away
        ArrivalPlace place;                     ///< up to there everything was handed on
        ArrivalPlace next;                      ///< with what more() gave
        ArrivalPlace kept;                      ///< as the position says
        std::optional<S64_t> begun{};           ///< the server's time when it was first reached
        std::string failure{};                  ///< why it is away
        Clock::time_point again{};              ///< when it is tried then
        std::chrono::seconds patience;          ///< with its next statement
        bool isHeldUp = false;

        // What has only gone by is not worth a write each time.
        bool isWorthKeeping() const {
            return begun && place.received >= *begun && kept.received < place.received - MINUTE;
        }
    };

    Entries look(std::size_t most) {
        Entries entries;
        given_ = 0;
        for (std::size_t i = 0; i < servers_.size(); ++i) {
            servers_[i].next = servers_[i].place;
            withServer(i, [&](Server& server) {
                open(server);
                takeFrom(server, most, entries); // what it gave before it failed is given
                watch(server);
            });
        }
        if (given_ == 0) {
            requireAny();
        }
        return entries;
    }

    void open(Server& server) {
        if (server.arrivals) {
            return;
        }
        auto arrivals = std::make_unique<PgArrivals>(server.address, lag_, server.patience);
        if (!server.begun) {
            server.begun = arrivals->now();
        }
        server.arrivals = std::move(arrivals);
    }

    // Does something with a server. One that fails is away; it is tried again after a while.
    template <typename Work>
    void withServer(std::size_t number, const Work& work) {
        Server& server = servers_[number];
        if (!server.arrivals && Clock::now() < server.again) {
            return;
        }
        const bool wasAway = !server.failure.empty();
        try {
            work(server);
            server.failure.clear();
            server.patience = patience_;
        } catch (const StoreError& error) {
            server.arrivals.reset();
            server.again = Clock::now() + AGAIN;
            server.failure = error.what();
            server.patience = std::min(2 * server.patience, LONGEST_PATIENCE);
        }
        const bool isAway = !server.failure.empty();
        if (isAway != wasAway && servers_.size() > 1) {
            say_(isAway ? Level::WARNING : Level::NOTICE,
                 "server " + std::to_string(number + 1) +
                     (isAway ? ": " + server.failure +
                                   "; its events wait, those of other servers go on"
                             : ": its events go on"));
        }
    }

    // When nobody is there, everything waits.
    void requireAny() const {
        if (std::ranges::none_of(servers_,
                                 [](const Server& it) { return it.arrivals != nullptr; })) {
            throw StoreError(servers_.front().failure, StoreError::Kind::PASSING);
        }
    }

    // The lines of the servers in front of the others, or the beginning of each.
    static std::vector<Reached> takeReached(std::string& position, std::size_t servers) {
        std::vector<Reached> all;
        while (position.starts_with(FIRST_WORD)) {
            const std::size_t end = std::min(position.find('\n'), position.size());
            const auto reached = Reached::parse(position.substr(0, end), all.size() + 1);
            if (!reached) {
                throw std::runtime_error("the cursor is not one of an archive on a server");
            }
            all.push_back(*reached);
            position.erase(0, end + 1);
        }
        if (all.empty()) {
            all.resize(servers);
        }
        if (all.size() != servers) {
            throw std::runtime_error("the cursor is one of an archive on " +
                                     std::to_string(all.size()) + " servers");
        }
        return all;
    }

    // Passes over stretches of time without an event.
    void takeFrom(Server& server, std::size_t most, Entries& entries) {
        while (given_ < most) {
            const std::size_t room = most - given_;
            auto arrivals = server.arrivals->take(server.next, room);
            for (ArrivedEvent& arrival : arrivals) {
                give(arrival, entries);
            }
            if (server.next.received >= server.arrivals->complete()) {
                return;
            }
        }
    }

    void give(ArrivedEvent& arrival, Entries& entries) {
        ++given_;
        const std::string name = nameOf(arrival.key, arrival.generation);
        const auto done = done_.find(name);
        if (done != done_.end() && done->second.contains(arrival.sequenceId)) {
            return;
        }
        if (!evarchive::isWholeEvent(arrival.image)) {
            say_(Level::WARNING,
                 name + ": event " + std::to_string(arrival.sequenceId) + " is damaged, left out");
            return;
        }
        entries.push_back({.image = std::move(arrival.image), .generation = arrival.generation});
    }

    // Says that a transaction of the server has been open for long, once.
    void watch(Server& server) {
        const auto since = server.arrivals->waitsSince();
        const bool isLong = since && server.arrivals->now() - *since > MINUTE;
        if (isLong && !server.isHeldUp) {
            say_(Level::WARNING, "events wait for a transaction that the server has had open for a "
                                 "minute: what it files comes in front of them");
        }
        server.isHeldUp = isLong;
    }

    Say say_;
    std::chrono::seconds lag_;
    std::chrono::seconds patience_;
    std::vector<Server> servers_;
    LogRuns done_;
    std::size_t given_ = 0; ///< by the last more(), with those that are left out
};

} // namespace

std::unique_ptr<Feed> arrivalFeed(const FeedOptions& from, const std::string& position,
                                  const Say& say) {
    return std::make_unique<ArrivalFeed>(from, position, say);
}

} // namespace evbridge
