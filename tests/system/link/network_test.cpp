/** A real event manager on one machine and the archiver on another, with a real wire between, and a
 * gate before the archiver or none. */
#include "network.h"

#include "blade.h"
#include "blade_link.h"
#include "certificates.h"
#include "link_messages.h"
#include "msm_reader.h"
#include "sqlite_store.h"

#include <gtest/gtest.h>

#include <csignal>

using namespace support;

namespace {

constexpr U16_t PORT = 4711;
const LogName OTHER{"CHASSIS-8", "BLADE-1", 1, 1};

// Around the borders of a segment on the two wires, and the ends.
const std::vector<size_t> SIZES = {0,    1,    24,   100,  200,  311,  312,  325,  340,  341,
                                   368,  369,  500,  1000, 1200, 1247, 1252, 1253, 1260, 1280,
                                   1281, 1292, 1300, 1500, 2000, 2728, 3000, 3500, 3847, 3848};

// A bad line of a few hundred kilometres.
constexpr Roughness ROUGH{std::chrono::milliseconds(3), std::chrono::milliseconds(6), 30};

/** What lies between them. */
struct Road {
    Wire wire = {};
    bool hasGate = false;
};

void PrintTo(const Road& road, std::ostream* out) {
    PrintTo(road.wire, out);
    *out << (road.hasGate ? " gate" : "");
}

class NetworkTest : public testing::TestWithParam<Road> {
  protected:
    void SetUp() override {
        if (const std::string why = Network::whyNot(GetParam().wire); !why.empty()) {
            GTEST_SKIP() << why;
        }
        network_ = std::make_unique<Network>(GetParam().wire, blade_.file("network"));
        startArchiver();
        if (GetParam().hasGate) {
            startGate();
        }
        emp_ = std::make_unique<RunningEmp>(blade_);
        emp_->start();
        reader_ = std::make_unique<MsmReader>(emp_->msm, copies_);
        emp_->process.waitForOutput("Wait for Event Messages.");
        nameArchiver();
        // An inquiry that comes before the status answer is never answered.
        emp_->process.waitForOutput("empRcvGetEventArchiverStatusMsg(): Event Archiver");
    }

    void TearDown() override {
        if (network_ && network_->rough() != nullptr) {
            EXPECT_GT(network_->rough()->lost(), 0U);
            EXPECT_GT(network_->rough()->overtaken(), 0U);
        }
        if (emp_) {
            emp_->process.signal(SIGKILL);
            emp_->process.wait();
            reader_.reset();
        }
    }

    std::unique_ptr<Process> startFar(const std::string& name,
                                      const std::vector<std::string>& arguments) {
        auto process = std::make_unique<Process>(network_->inFar(commandOf(name, arguments)),
                                                 blade_.file(name + std::to_string(++starts_)));
        process->waitForOutput("listening on ");
        return process;
    }

    void startArchiver() {
        const std::string place =
            GetParam().hasGate ? "127.0.0.1:4713" : std::string(Network::FAR) + ":4711";
        archiver_ = startFar("evarchiver", {"--listen", place, "--db", database_});
    }

    // The wire lies between the blade and the site's end of the gate.
    void startGate() {
        const Authority authority(blade_.file("ca"));
        const auto startEnd = [&](std::vector<std::string> arguments, const std::string& name) {
            const auto files = authority.issue(name).options(authority.path());
            arguments.insert(arguments.end(), files.begin(), files.end());
            ends_.push_back(startFar("evgate", arguments));
        };
        writeFile(blade_.file("map"), "CN:site CHASSIS-*\n");
        startEnd({"archive", "--listen", "127.0.0.1:4712", "--to", "127.0.0.1:4713", "--map",
                  blade_.file("map")},
                 "archive");
        startEnd({"site", "--listen", std::string(Network::FAR) + ":4711", "--to", "127.0.0.1:4712",
                  "--name", "archive.example"},
                 "site");
    }

    void nameArchiver() {
        Bytes body = {10, 99, 0, 2};
        put16(body, PORT);
        put16(body, 0);
        emp_->msm.send(makeMmsg({.type = 3, .local = {27}}, body));
        reader_->reply(3);
    }

    bool isAlive() { return !emp_->process.poll().has_value(); }

    void log(size_t size) {
        const size_t before = reader_->copies();
        emp_->msm.send(eventMessage(18, Bytes(size, static_cast<U8_t>(size))));
        ASSERT_TRUE(reader_->waitForCopies(before + 1)) << emp_->process.output();
    }

    // The blade's events that the archive has.
    EventBodies archived() {
        const auto archive = evarchive::openArchiveForReading(database_);
        EventBodies found;
        const auto series = archive->findSeries({{"CHASSIS-7", "BLADE-42", 3}, 0});
        if (const auto newest = series ? archive->newestGeneration(*series) : std::nullopt) {
            archive->forEachEvent(newest->number, [&](const evarchive::StoredEvent& event) {
                found[event.sequenceId] = event.image;
            });
        }
        return found;
    }

    void expectAllArchived() {
        const auto isSettled = [this] {
            emp_->msm.send(bareMessage(4));                 // a pass for the forward timer
            return archived().size() == copies_.size() + 1; // the log's own first entry
        };
        EXPECT_TRUE(waitUntil(isSettled)) << archived().size() << " of " << copies_.size();
        const EventBodies found = archived();
        for (const auto& [id, body] : copies_) {
            ASSERT_TRUE(found.contains(id)) << id;
            ASSERT_EQ(found.at(id), body) << id;
        }
    }

    // The reply to an inquiry that the event manager relays.
    Bytes relay(U32_t type, U32_t id) {
        emp_->msm.send(makeMmsg({.type = 2, .requestor = 18, .local = {27}, .handle = ++handle_},
                                inquiryBody(type, OTHER, id)));
        const auto reply = reader_->reply(2);
        EXPECT_TRUE(reply.has_value()) << emp_->process.output();
        return reply.value_or(Bytes(216));
    }

    Blade blade_;
    std::string database_ = blade_.file("events.db");
    std::unique_ptr<Network> network_;
    std::unique_ptr<Process> archiver_;
    std::vector<std::unique_ptr<Process>> ends_; ///< of the gate
    std::unique_ptr<RunningEmp> emp_;
    EventBodies copies_;
    std::unique_ptr<MsmReader> reader_;
    U32_t handle_ = 0;
    int starts_ = 0;
};

TEST_P(NetworkTest, AnswersOfEverySizeReachAnEventManagerThatStaysAlive) {
    {
        BladeLink link(PORT, 0, Network::FAR);
        link.ask(statusRequest(OTHER, 0, {}, 1));
        for (size_t i = 0; i < SIZES.size(); ++i) {
            link.send(support::eventMessage(
                {.log = OTHER, .id = static_cast<U32_t>(i), .data = Bytes(SIZES[i], 0xD7)}));
        }
        link.ask(statusRequest(OTHER, 0, {}, 2));
    }
    int whole = 0;
    int refused = 0;
    for (size_t i = 0; i < SIZES.size(); ++i) {
        const Bytes reply = relay(EXACT, static_cast<U32_t>(i));
        ASSERT_TRUE(isAlive()) << "event of " << SIZES[i] << " bytes";
        const U32_t code = number32(reply, 36);
        if (code == 1) {
            EXPECT_EQ(reply.size(), 216 + SIZES[i]);
            EXPECT_EQ(Bytes(reply.begin() + 216, reply.end()), Bytes(SIZES[i], 0xD7));
            ++whole;
        } else {
            EXPECT_EQ(code, 3U) << SIZES[i];
            ++refused;
        }
    }
    EXPECT_GE(whole, GetParam().wire.mtu == 1500 ? 15 : 5);
    EXPECT_GE(refused, GetParam().wire.mtu == 1500 ? 7 : 18);
}

TEST_P(NetworkTest, EventsOfEverySizeArriveThroughOutagesOfLinkAndArchiver) {
    for (const size_t size : SIZES) {
        log(size);
    }
    expectAllArchived();
    network_->setUp(false);
    log(100);
    log(3000);
    network_->setUp(true);
    log(10);
    archiver_->signal(SIGKILL);
    archiver_->wait();
    log(2000);
    startArchiver();
    nameArchiver();
    for (const size_t size : SIZES) {
        log(size);
    }
    expectAllArchived();
    EXPECT_TRUE(isAlive());
    archiver_->signal(SIGTERM);
    EXPECT_EQ(archiver_->wait(), exitedWith(0));
    EXPECT_NE(archiver_->output().find(" 0 generations opened"), std::string::npos);
}

std::vector<Road> roads() {
    std::vector<Road> all = {{{1500, "rate 100mbit burst 16k latency 50ms"}},
                             {{1500, "rate 1gbit burst 32k latency 50ms"}},
                             {{576, ""}},
                             {{1500, "", ROUGH}}};
#ifdef HAS_GATE
    all.push_back({{1500, "rate 100mbit burst 16k latency 50ms"}, true});
    all.push_back({{576, "", ROUGH}, true});
#endif
    return all;
}

INSTANTIATE_TEST_SUITE_P(Wires, NetworkTest, testing::ValuesIn(roads()), [](const auto& road) {
    const Wire& wire = road.param.wire;
    return std::string(road.param.hasGate ? "Gate" : "") + (wire.rough ? "RoughMtu" : "Mtu") +
           std::to_string(wire.mtu) + "At" + std::to_string(road.index);
});

} // namespace
