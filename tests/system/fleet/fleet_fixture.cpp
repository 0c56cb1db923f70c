#include "fleet_fixture.h"

#include "link_messages.h"

#include <csignal>
#include <thread>

namespace fleet {

using namespace support;

RealBlade::RealBlade() : emp_(blade_) {
    emp_.start();
    reader_ = std::make_unique<MsmReader>(emp_.msm, copies_);
    emp_.process.waitForOutput("Wait for Event Messages.");
}

RealBlade::~RealBlade() {
    emp_.process.signal(SIGKILL);
    emp_.process.wait();
    reader_.reset();
}

void RealBlade::connectTo(U16_t port) {
    Bytes body = {127, 0, 0, 1};
    put16(body, port);
    put16(body, 0);
    emp_.msm.send(makeMmsg({.type = 3, .local = {27}}, body));
    reader_->reply(3);
}

void RealBlade::log(size_t count) {
    for (size_t i = 0; i < count; ++i) {
        const std::string text = "event " + std::to_string(logged_ + i);
        emp_.msm.send(eventMessage(18, Bytes(text.begin(), text.end())));
    }
    logged_ += count;
    reader_->waitForCopies(logged_);
}

void RealBlade::pass() {
    emp_.msm.send(bareMessage(5));
    reader_->reply(5);
}

bool RealBlade::isArchived(evarchive::StoreReader& archive) {
    const auto series = archive.findSeries({{"CHASSIS-7", "BLADE-42", 3}, 0});
    const auto newest = series ? archive.newestGeneration(*series) : std::nullopt;
    EventBodies held;
    if (newest) {
        archive.forEachEvent(newest->number, [&held](const evarchive::StoredEvent& event) {
            held[event.sequenceId] = event.image;
        });
    }
    std::erase_if(held, [this](const auto& event) { return !copies_.contains(event.first); });
    return held == copies_;
}

std::unique_ptr<Process> FleetProcessTest::launch(const std::string& listen,
                                                  const std::string& place,
                                                  const std::vector<std::string>& arguments) {
    std::vector<std::string> all = {"--listen", listen, "--db", place, "--progress", "0"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return std::make_unique<Process>(commandOf("evarchiver", all),
                                     directory_.file("archiver" + std::to_string(++starts_)));
}

Archiver& FleetProcessTest::startArchiver(const std::string& place,
                                          const std::vector<std::string>& arguments) {
    Archiver& archiver = startWaiting(place, arguments);
    awaitPort(archiver);
    return archiver;
}

Archiver& FleetProcessTest::startWaiting(const std::string& place,
                                         const std::vector<std::string>& arguments) {
    Archiver& archiver = archivers_.emplace_back();
    archiver.process = launch("127.0.0.1:0", place, arguments);
    return archiver;
}

void FleetProcessTest::awaitPort(Archiver& archiver) {
    const std::string line = archiver.process->waitForOutput("listening on 127.0.0.1:");
    archiver.port = static_cast<U16_t>(std::stoi(line.substr(line.rfind(':') + 1)));
}

void FleetProcessTest::restart(Archiver& archiver, const std::string& place) {
    archiver.process = launch("127.0.0.1:" + std::to_string(archiver.port), place, {});
    archiver.process->waitForOutput("listening on 127.0.0.1:");
}

void FleetProcessTest::stopArchivers() {
    for (Archiver& archiver : archivers_) {
        archiver.process->signal(SIGTERM);
        EXPECT_EQ(archiver.process->wait(), exitedWith(0)) << archiver.process->output();
        EXPECT_EQ(archiver.process->errorOutput(), "");
    }
}

std::unique_ptr<Process> FleetProcessTest::startFleet(const std::string& check,
                                                      const std::vector<std::string>& arguments) {
    std::vector<std::string> all = {"--check",     check, "--json",   "--progress", "0",
                                    "--reconnect", "200", "--settle", "60"};
    for (const Archiver& archiver : archivers_) {
        all.insert(all.end(), {"--to", "127.0.0.1:" + std::to_string(archiver.port)});
    }
    all.insert(all.end(), arguments.begin(), arguments.end());
    return std::make_unique<Process>(commandOf("evfleet", all), directory_.file("fleet"));
}

bool waitForServer(const std::function<bool()>& reached, std::chrono::milliseconds deadline) {
    return waitUntil(
        [&reached] {
            const bool is = reached();
            if (!is) {
                std::this_thread::sleep_for(std::chrono::milliseconds(25));
            }
            return is;
        },
        deadline);
}

int rounds(int usual) {
    const char* text = getenv("FLEET_ROUNDS");
    return text != nullptr ? std::atoi(text) : usual;
}

std::string runDb(const std::vector<std::string>& arguments) {
    const TempDirectory directory;
    std::vector<std::string> all = {"db"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    Process process(commandOf("evarchiver", all), directory.file("db"));
    EXPECT_EQ(process.wait(), exitedWith(0)) << process.output() << process.errorOutput();
    return process.output();
}

} // namespace fleet
