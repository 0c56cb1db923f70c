#include "server.h"

#include "lines.h"
#include "reader.h"

#include <algorithm>
#include <utility>

namespace evarchive {
namespace {

// How long nothing must have come before the event at hand is filed as doubtful.
constexpr std::chrono::milliseconds SETTLE_TIME{100};

// How long events may wait for more of them before the lane is woken.
constexpr std::chrono::milliseconds HAND_OVER_TIME{5};
constexpr std::size_t HAND_OVER_SIZE = 131'072;

// How long an end may take: for the links to end, then for the archive.
constexpr std::chrono::milliseconds LINKS_END_TIME{1000};
constexpr std::chrono::milliseconds ARCHIVE_END_TIME{5000};

// Between two looks for an archive that is away at the start.
constexpr std::chrono::milliseconds FIRST_LOOK_DELAY{100};
constexpr std::chrono::milliseconds LONGEST_LOOK_DELAY{2000};

std::string count(U64_t number, const char* what) {
    return std::to_string(number) + " " + what;
}

} // namespace

std::string progressLine(const ArchiveCounts& archive, const SessionCounts& sessions) {
    return count(sessions.messages, "messages, ") + count(archive.stored, "events stored, ") +
           count(archive.duplicates, "duplicates dropped, ") +
           count(archive.generations, "generations opened, ") +
           count(archive.strangers, "of another identity, ") +
           count(archive.setAside, "set aside, ") + count(archive.refused, "refused, ") +
           count(archive.statusAnswers, "status answers, ") +
           count(archive.found, "inquiries answered, ") +
           count(archive.notFound, "answered with nothing, ") +
           count(sessions.bordersLost, "streams without borders, ") +
           count(sessions.givenUp, "events given up");
}

Server::Server(const Options& options, Say say)
    : options_(options), say_(std::move(say)),
      acceptor_(context_,
                {.listen = options.listen,
                 .allow = options.allow,
                 .limit = options.connectionLimit,
                 .usualLimit = DEFAULT_LINKS,
                 .hostLimit = options.hostLimit,
                 .rate = options.handshakeRate,
                 .receiveBuffer = options.receiveBuffer,
                 .segmentSize = options.segmentSize,
                 .refuses = options.misbehaviour.refuse},
                {say_, [this] { return whyNot(); },
                 [this](asio::ip::tcp::socket socket, const asio::ip::tcp::endpoint& peer) {
                     take(std::move(socket), peer);
                 }}) {}

std::optional<std::string> Server::whyNot() const {
    if (!lanes_->mayTakeLinks(options_.spool)) {
        return "too much waits for the archive";
    }
    return std::nullopt;
}

std::string Server::whyNotReady(const LaneState& lane) const {
    if (isStopping_) {
        return "it is ending";
    }
    if (!lane.canFile) {
        return lane.isRefused ? "the archive refuses what is filed"
                              : "the archive cannot be written";
    }
    return whyNot().value_or("");
}

void Server::take(asio::ip::tcp::socket socket, const asio::ip::tcp::endpoint& peer) {
    const auto link = std::make_shared<Link>(std::move(socket), peer, ++lastNumber_,
                                             static_cast<LinkHost&>(*this));
    links_.emplace(lastNumber_, link);
    link->start();
}

void Server::open(const Engine& engine) {
    lanes_.emplace(engine, options_.lane, options_.lanes,
                   Lane::Callbacks{[this](std::vector<Reply> replies) {
                                       asio::post(context_,
                                                  [this, replies = std::move(replies)]() mutable {
                                                      deliver(std::move(replies));
                                                  });
                                   },
                                   say_,
                                   [this](const std::string& why) {
                                       asio::post(context_, [this, why] { laneFailed(why); });
                                   }});
}

// Blades find nobody here meanwhile, and try again or go elsewhere. What waiting does not mend ends
// it. @return false: it is to end before the archive has come
bool Server::awaitArchive(const std::function<Engine()>& engine) {
    for (auto delay = FIRST_LOOK_DELAY; !isStopping_;
         delay = std::min(2 * delay, LONGEST_LOOK_DELAY)) {
        try {
            open(engine());
            return true;
        } catch (const StoreError& error) {
            if (!error.isPassing() || !isPgPlace(options_.database)) {
                throw;
            }
            noteAway(error.what());
        }
        context_.run_for(delay);
    }
    return false;
}

void Server::noteAway(const std::string& why) {
    const std::lock_guard lock(stateMutex_);
    if (!std::exchange(state_.lane.isAway, true)) {
        state_.notReady = "the archive is not there yet";
        say_(Level::FAILURE, why + "; not listening until the archive is there, tried again");
    }
}

ServerEnd Server::run(const std::function<Engine()>& engine) {
    signals_.async_wait([this](asio::error_code error, int signal) {
        if (!error) {
            beginStop(signal);
        }
    });
    if (!awaitArchive(engine)) {
        end_.isSafe = true; // nothing came
        return end_;
    }
    if (state().lane.isAway) {
        say_(Level::NOTICE, "the archive is there");
    }
    acceptor_.start();
    // For programs that wait for it: as it stands.
    writeLine("listening on " + textOfEndpoint(acceptor_.place()) +
              (options_.misbehaviour.refuse ? ", refusing all connections" : ""));
    if (options_.allow.empty() && options_.listen.address().is_unspecified()) {
        say_(Level::WARNING, "every address that reaches this one is served, see --allow");
    }
    armSecond();
    context_.run();
    end_.isSafe = lanes_->stop(ARCHIVE_END_TIME);
    everySecond();
    return end_;
}

// --- What links ask for --------------------------------------------------------------------------

bool Server::hasRoom(const Link& link) {
    return lanes_->hasRoom(link.number(), options_.spool);
}

void Server::submit(const Link& link, Batch::Kind kind, View body, U32_t ticket) {
    lanes_->add(link.number(), link.blade(), kind, body, ticket);
    armHandOver();
}

void Server::armHandOver() {
    if (lanes_->pending() > HAND_OVER_SIZE) {
        handOver();
    } else if (lanes_->isUrgent() && !isHandOverPosted_) {
        // Behind what is ready now: it goes with what other links bring.
        isHandOverPosted_ = true;
        asio::post(context_, [this] {
            isHandOverPosted_ = false;
            handOver();
        });
    } else if (!isHandOverTimed_) {
        isHandOverTimed_ = true;
        handOverTimer_.expires_after(HAND_OVER_TIME);
        handOverTimer_.async_wait([this](asio::error_code) {
            isHandOverTimed_ = false;
            handOver();
        });
    }
}

void Server::handOver() {
    lanes_->handOver();
}

void Server::speaks(Link& link, const BladeKey& blade) {
    LinkNumber& speaker = blades_[blade];
    const LinkNumber before = std::exchange(speaker, link.number());
    if (before == 0 || before == link.number()) {
        return;
    }
    if (const auto found = links_.find(before); found != links_.end()) {
        const auto old = found->second; // it leaves the map by this
        ++counts_.replaced;
        old->end(Level::NOTICE, nameOf(blade) + " speaks on " + link.peer() + ", closed");
    }
}

void Server::unsettled(Link& link) {
    unsettled_.push_back(link.number());
    armSettling();
}

bool Server::addUnsent(std::ptrdiff_t bytes) {
    unsent_ += static_cast<std::size_t>(bytes);
    return unsent_ <= options_.unsentLimit;
}

void Server::closed(Link& link) {
    if (link.blade()) {
        const auto speaker = blades_.find(*link.blade());
        if (speaker != blades_.end() && speaker->second == link.number()) {
            blades_.erase(speaker);
        }
    }
    acceptor_.leave(link.address());
    links_.erase(link.number());
    if (isStopping_ && links_.empty()) {
        finishStop();
    }
}

// --- What the lane says --------------------------------------------------------------------------

void Server::deliver(std::vector<Reply> replies) {
    for (Reply& reply : replies) {
        const auto link = links_.find(reply.link);
        if (link != links_.end()) {
            const auto kept = link->second; // it may end by this
            kept->deliver(std::move(reply));
        }
    }
}

void Server::laneFailed(const std::string& why) {
    end_.failure = why;
    say_(Level::FAILURE, why);
    beginStop(0);
}

// --- Time ----------------------------------------------------------------------------------------

void Server::armSettling() {
    if (isSettling_) {
        return;
    }
    isSettling_ = true;
    settling_.expires_after(SETTLE_TIME);
    settling_.async_wait([this](asio::error_code error) {
        isSettling_ = false;
        if (!error) {
            settle();
        }
    });
}

void Server::settle() {
    const auto since = Clock::now() - SETTLE_TIME;
    for (const LinkNumber number : std::exchange(unsettled_, {})) {
        const auto link = links_.find(number);
        if (link != links_.end() && link->second->settle(since)) {
            unsettled_.push_back(number);
        }
    }
    if (!unsettled_.empty()) {
        armSettling();
    }
}

void Server::armSecond() {
    second_.expires_after(std::chrono::seconds(1));
    second_.async_wait([this](asio::error_code error) {
        if (!error) {
            everySecond();
            armSecond();
        }
    });
}

void Server::everySecond() {
    const auto now = Clock::now();
    std::vector<std::shared_ptr<Link>> links; // one that closes leaves the map
    links.reserve(links_.size());
    for (const auto& [number, link] : links_) {
        links.push_back(link);
    }
    for (const auto& link : links) {
        link->checkTime(now);
    }
    counts_.refused = acceptor_.refused();
    const LaneState lane = lanes_->state();
    {
        const std::lock_guard lock(stateMutex_);
        state_ = {links_.size(), counts_, lane, unsent_, whyNotReady(lane)};
    }
    ++secondsPassed_;
    if (options_.progress.count() > 0 &&
        secondsPassed_ % static_cast<U64_t>(options_.progress.count()) == 0) {
        sayProgress();
    }
}

void Server::sayProgress() {
    const std::string line = progressLine(state_.lane.counts, counts_.sessions);
    if (line != lastProgress_) {
        say_(Level::INFO, line);
        lastProgress_ = line;
    }
}

ServerState Server::state() {
    const std::lock_guard lock(stateMutex_);
    return state_;
}

// --- The end -------------------------------------------------------------------------------------

void Server::beginStop(int signal) {
    if (isStopping_) {
        return;
    }
    isStopping_ = true;
    {
        const std::lock_guard lock(stateMutex_);
        state_.notReady = "it is ending";
    }
    end_.signal = signal;
    acceptor_.close();
    endAllLinks();
    if (links_.empty()) {
        finishStop();
        return;
    }
    stopTimer_.expires_after(LINKS_END_TIME);
    stopTimer_.async_wait([this](asio::error_code) { finishStop(); });
}

void Server::endAllLinks() {
    std::vector<std::shared_ptr<Link>> links;
    for (const auto& [number, link] : links_) {
        links.push_back(link);
    }
    for (const auto& link : links) {
        link->end();
    }
}

void Server::finishStop() {
    if (lanes_) {
        handOver();
    }
    context_.stop();
}

} // namespace evarchive
