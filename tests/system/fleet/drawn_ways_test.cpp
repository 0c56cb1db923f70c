/** Blades and two archivers in orders that are drawn. The archivers stand still but for the moments
 * in which one is let go on: what came on a link is looked at when its blade is long elsewhere,
 * with its log rebuilt, or gone round. */
#include "archive.h"
#include "blade_link.h"
#include "fleet_fixture.h"
#include "postgres/pg_store.h"

#include <csignal>
#include <iostream>
#include <random>
#include <set>
#include <thread>

using namespace support;
using namespace fleet;

namespace {

/** A blade's log, and its link. All events have the same data, and times of their own. */
class DrawnBlade {
  public:
    explicit DrawnBlade(U32_t slot) : name_{.enclosure = "DRAWN", .slot = slot} { log(); }

    void log() {
        log_.push_back({.log = name_,
                        .id = static_cast<U32_t>(log_.size()),
                        .data = {1, 2, 3},
                        .time = ++serial_});
    }

    void rebuild() {
        if (!wasRebuilt_) {
            wasRebuilt_ = true;
            cut();
            log_.clear();
            first_ = 0;
            log();
        }
    }

    /** The ring goes round while the blade is away. */
    void overwrite() {
        if (!isConnected() && log_.size() - first_ > 1) {
            next_ = std::max<std::size_t>(next_, ++first_);
        }
    }

    void cut() { link_.reset(); }
    bool isConnected() const { return link_ != nullptr; }

    void connect(U16_t port) {
        link_ = std::make_unique<BladeLink>(port);
        isWaiting_ = true;
        ask();
    }

    /** Asks what is held. */
    void ask() {
        attempt([this] { link_->send(statusRequest(name_, first_, {1, 2, 3}, ++handle_)); });
    }

    void send() {
        if (isConnected() && !isWaiting_ && next_ < log_.size()) {
            attempt([this] { link_->send(eventMessage(log_[next_])); });
            ++next_;
        }
    }

    void sendAll() {
        while (isConnected() && !isWaiting_ && next_ < log_.size()) {
            send();
        }
    }

    /** Takes the answers that are there. */
    void listen() {
        while (isConnected() && !link_->isQuiet()) {
            attempt([this] { follow(claimOf(link_->receivePatiently())); });
        }
    }

    /** But for the last event, which is always asked for again. */
    bool isThrough() const { return isConnected() && !isWaiting_ && next_ + 1 >= log_.size(); }

    /** What the archive must have at the end. */
    std::vector<Bytes> images() const {
        std::vector<Bytes> images;
        for (std::size_t id = first_; id < log_.size(); ++id) {
            images.push_back(eventBody(log_[id]));
        }
        return images;
    }

    U32_t first() const { return first_; }
    U32_t slot() const { return name_.slot; }

  private:
    void follow(const Claim& claim) {
        isWaiting_ = false;
        const bool isNothing = claim.flag == 1 || claim.last >= log_.size();
        next_ = isNothing ? first_ : std::max(first_, claim.last + 1);
    }

    template <typename Work>
    void attempt(const Work& work) {
        try {
            work();
        } catch (const std::exception&) {
            cut();
        }
    }

    LogName name_;
    std::vector<EventFields> log_; ///< by id
    U32_t first_ = 0;
    U32_t serial_ = 0;
    U32_t handle_ = 0;
    bool wasRebuilt_ = false;
    bool isWaiting_ = false;
    std::size_t next_ = 0;
    std::unique_ptr<BladeLink> link_;
};

class DrawnWaysTest : public FleetProcessTest {
  protected:
    static constexpr U32_t BLADES = 40;

    unsigned draw(unsigned below) { return static_cast<unsigned>(random_() % below); }
    Archiver& anArchiver() { return archivers_[draw(static_cast<unsigned>(archivers_.size()))]; }

    void actOf(DrawnBlade& blade) {
        switch (draw(16)) {
        case 0:
            blade.rebuild();
            break;
        case 1:
            blade.cut();
            break;
        case 2:
            blade.send();
            blade.cut();
            break;
        case 3:
            blade.overwrite();
            break;
        case 4:
        case 5:
        case 6:
            blade.log();
            break;
        case 7:
            blade.cut();
            blade.connect(anArchiver().port);
            break;
        default:
            if (blade.isConnected()) {
                blade.send();
            } else {
                blade.connect(anArchiver().port);
            }
            break;
        }
    }

    void letGoOn(std::chrono::milliseconds time) {
        Archiver& archiver = anArchiver();
        archiver.process->signal(SIGCONT);
        std::this_thread::sleep_for(time);
        listenAll();
        archiver.process->signal(SIGSTOP);
    }

    void kill() {
        Archiver& archiver = anArchiver();
        archiver.process->signal(SIGKILL);
        archiver.process->wait();
        restart(archiver, place_);
        archiver.process->signal(SIGSTOP);
    }

    void listenAll() {
        for (DrawnBlade& blade : blades_) {
            blade.listen();
        }
    }

    // A rebuilt log that ends where the claim does shows with its next event.
    void finish() {
        for (Archiver& archiver : archivers_) {
            archiver.process->signal(SIGCONT);
        }
        for (DrawnBlade& blade : blades_) {
            blade.cut();
        }
        sendAll();
        for (DrawnBlade& blade : blades_) {
            blade.log();
        }
        sendAll();
    }

    // Until nobody has been asked for more for a second; each question is a border behind the last
    // event.
    void sendAll() {
        for (int round = 0, calm = 0; calm < 4; ++round) {
            ASSERT_LT(round, 80) << "blades are asked for events without end";
            for (DrawnBlade& blade : blades_) {
                if (!blade.isConnected()) {
                    blade.connect(anArchiver().port);
                }
                blade.sendAll();
                blade.ask();
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(250));
            listenAll();
            calm = isThrough() ? calm + 1 : 0;
        }
    }

    bool isThrough() {
        return std::ranges::all_of(blades_, [](const auto& blade) { return blade.isThrough(); });
    }

    static bool isThere(evarchive::StoreReader& archive, const DrawnBlade& blade) {
        const auto series =
            archive.findSeries({{"DRAWN", LogName{}.blade, blade.slot()}, LogName{}.instance});
        const auto newest = series ? archive.newestGeneration(*series) : std::nullopt;
        U32_t id = blade.first();
        return newest && std::ranges::all_of(blade.images(), [&](const Bytes& image) {
                   const auto held = archive.heldEvent(newest->number, id++);
                   return held && held->image == image && !held->doubtful;
               });
    }

    // What is held, and what is set aside.
    static std::set<Bytes> allKept(evarchive::StoreReader& archive) {
        std::set<Bytes> kept;
        for (const auto& info : archive.listGenerations()) {
            archive.forEachEvent(info.number, [&](const evarchive::StoredEvent& event) {
                kept.insert(event.image);
            });
        }
        archive.forEachAside([&](const evarchive::AsideEvent& event) { kept.insert(event.image); });
        return kept;
    }

    static void expectNothingIsTwice(evarchive::StoreReader& archive) {
        std::set<Bytes> images;
        for (const auto& info : archive.listGenerations()) {
            archive.forEachEvent(info.number, [&](const evarchive::StoredEvent& event) {
                EXPECT_TRUE(images.insert(event.image).second)
                    << evarchive::nameOf(info.key) << ", id " << event.sequenceId;
            });
        }
    }

    std::string place_;
    std::mt19937 random_;
    std::deque<DrawnBlade> blades_;
};

} // namespace

TEST_F(DrawnWaysTest, NothingIsLostOrStoredTwice) {
    const char* text = getenv("FLEET_SEED"); // NOLINT(concurrency-mt-unsafe)
    const unsigned seed = text != nullptr ? static_cast<unsigned>(std::stoul(text)) : 1;
    SCOPED_TRACE("FLEET_SEED=" + std::to_string(seed));
    random_.seed(seed);
    place_ = sharedPgServer().makeDatabase("drawn");
    runDb({"create", "--db", place_, "--retention-days", "4"});
    for (int i = 0; i < 2; ++i) {
        startArchiver(place_).process->signal(SIGSTOP);
    }
    for (U32_t slot = 0; slot < BLADES; ++slot) {
        blades_.emplace_back(slot);
    }
    const auto archive = evarchive::openPgArchiveForReading(place_);
    std::set<Bytes> safe;
    for (int step = 0; step < rounds(40); ++step) {
        if (step % 5 == 0) {
            safe.merge(allKept(*archive));
        }
        for (DrawnBlade& blade : blades_) {
            actOf(blade);
        }
        if (draw(20) == 0) {
            kill();
        } else {
            letGoOn(std::chrono::milliseconds(20 + draw(200)));
        }
    }
    finish();
    for (const DrawnBlade& blade : blades_) {
        EXPECT_TRUE(waitForServer([&] { return isThere(*archive, blade); })) << blade.slot();
    }
    expectNothingIsTwice(*archive);
    const std::set<Bytes> kept = allKept(*archive);
    EXPECT_TRUE(std::ranges::includes(kept, safe)) << "an event is gone that was safe";
    std::cout << kept.size() << " events, " << safe.size() << " of them safe on the way\n";
    stopArchivers();
}
