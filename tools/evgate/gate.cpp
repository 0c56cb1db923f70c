#include "gate.h"

#include "common/text.h"
#include "lines.h"

#include <csignal>
#include <fstream>
#include <stdexcept>

namespace evgate {
namespace {

using namespace evarchive;

constexpr std::chrono::seconds LINKS_END_TIME{1};

// Days before its end that a certificate is warned of.
constexpr int WARNING_DAYS = 30;

CertificateMap readMap(const std::string& path) {
    std::ifstream file(path);
    if (!file) {
        throw std::runtime_error(path + ": it cannot be read");
    }
    try {
        return CertificateMap::read(file);
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(path + ": " + error.what());
    }
}

Acceptor::Settings settingsOf(const Options& options) {
    return {.listen = options.listen,
            .allow = options.allow,
            .limit = options.connectionLimit,
            .usualLimit = DEFAULT_LINKS,
            .descriptors = 2,
            .hostLimit = options.hostLimit,
            .rate = options.handshakeRate,
            .segmentSize = options.segmentSize};
}

} // namespace

Gate::Gate(const Options& options, Say say)
    : options_(options), say_(std::move(say)),
      acceptor_(context_, settingsOf(options),
                {say_, {}, [this](asio::ip::tcp::socket socket, const auto& peer) {
                     take(std::move(socket), peer);
                 }}) {
    readFiles();
    acceptor_.start();
    // For programs that wait for it: as it stands.
    writeLine("listening on " + textOfEndpoint(acceptor_.place()));
    sayFiles();
    if (options_.end == GateEnd::SITE && options_.allow.empty() &&
        options_.listen.address().is_unspecified()) {
        say_(Level::WARNING, "every address that reaches this one is served, see --allow");
    }
    if (options_.end == GateEnd::ARCHIVE && !options_.to.address().is_loopback()) {
        say_(Level::WARNING, "what goes to " + textOfEndpoint(options_.to) + " is not encrypted");
    }
}

void Gate::readFiles() {
    const TlsSide side = options_.end == GateEnd::SITE ? TlsSide::CLIENT : TlsSide::SERVER;
    auto tls = std::make_unique<TlsContext>(side, options_.files);
    if (options_.end == GateEnd::ARCHIVE) {
        map_ = readMap(options_.map);
    }
    tls_ = std::move(tls);
}

void Gate::sayFiles() {
    const int days = tls_->daysLeft();
    if (days < 0) {
        say_(Level::WARNING, "the certificate is no longer valid: no link will stand");
    } else {
        say_(days < WARNING_DAYS ? Level::WARNING : Level::INFO,
             "the certificate is valid for " + std::to_string(days) + " more days");
    }
}

void Gate::readFilesAgain() {
    try {
        readFiles();
    } catch (const std::exception& error) {
        say_(Level::WARNING, std::string("goes on with the files that it had: ") + error.what());
        return;
    }
    say_(Level::INFO, "certificate, key, authorities and rights are read again");
    sayFiles();
    for (const auto& link : links()) {
        link->checkPeer();
    }
}

Rights Gate::rightsOf(const std::vector<std::string>& names) const {
    return map_.rightsOf(names);
}

void Gate::run() {
    awaitSignal();
    awaitSecond();
    context_.run();
    say_(Level::INFO,
         "summary: " + std::to_string(counts_.links) + " links, " + std::to_string(counts_.failed) +
             " that did not come to stand, " + std::to_string(counts_.denied) + " denied, " +
             std::to_string(acceptor_.refused()) + " not taken, " +
             std::to_string(counts_.requests) + " requests, " + std::to_string(counts_.answers) +
             " answers, " + std::to_string(counts_.shortened) + " without their event");
}

void Gate::take(asio::ip::tcp::socket socket, const asio::ip::tcp::endpoint& peer) {
    const auto link = std::make_shared<Link>(std::move(socket), peer, ++lastNumber_,
                                             static_cast<LinkHost&>(*this));
    links_.emplace(lastNumber_, link);
    link->start();
}

void Gate::failed(const Link& link, const std::string& why) {
    acceptor_.refuse(link.peer(), why);
}

void Gate::closed(Link& link) {
    acceptor_.leave(link.address());
    links_.erase(link.number());
    if (isStopping_ && links_.empty()) {
        context_.stop();
    }
}

// One that closes leaves the map.
std::vector<std::shared_ptr<Link>> Gate::links() const {
    std::vector<std::shared_ptr<Link>> all;
    all.reserve(links_.size());
    for (const auto& [number, link] : links_) {
        all.push_back(link);
    }
    return all;
}

void Gate::awaitSignal() {
    signals_.async_wait([this](asio::error_code error, int signal) {
        if (error) {
            return;
        }
        if (signal == SIGHUP) {
            readFilesAgain();
            awaitSignal();
        } else {
            beginStop();
        }
    });
}

void Gate::awaitSecond() {
    second_.expires_after(std::chrono::seconds(1));
    second_.async_wait([this](asio::error_code error) {
        if (!error) {
            everySecond();
            awaitSecond();
        }
    });
}

void Gate::everySecond() {
    const auto now = Clock::now();
    for (const auto& link : links()) {
        link->checkTime(now);
    }
}

void Gate::beginStop() {
    isStopping_ = true;
    acceptor_.close();
    for (const auto& link : links()) {
        link->end();
    }
    if (links_.empty()) {
        context_.stop();
        return;
    }
    stop_.expires_after(LINKS_END_TIME);
    stop_.async_wait([this](asio::error_code) { context_.stop(); });
}

} // namespace evgate
