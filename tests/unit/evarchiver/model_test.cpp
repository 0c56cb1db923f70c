/** A blade and the archive's rules in arbitrary histories: links cut, logs rebuilt, commits lost.
 */
#include "archive_fixture.h"

#include <random>

using namespace evarchive;

namespace {

/** A blade's log and link, as its event manager treats them. */
class ModelBlade {
  public:
    explicit ModelBlade(U32_t& serial) : serial_(serial) { rebuild(); }

    void log() {
        support::EventFields fields = {.id = static_cast<U32_t>(log_.size())};
        // The first event of every log of a blade is the same; no two others are.
        fields.time = log_.empty() ? 1 : ++serial_;
        log_.push_back(support::eventBody(fields));
    }

    void rebuild() {
        log_.clear();
        link_ = 0;
        log();
    }

    void cut() { link_ = 0; }
    bool isConnected() const { return link_ != 0; }
    bool isCaughtUp() const { return next_ >= log_.size(); }
    const std::vector<Bytes>& events() const { return log_; }

    void connect(Archive& archive, LinkNumber link) {
        link_ = link;
        const StatusVerdict verdict = archive.answerStatus(
            link, imageOf<EmpGetEvArchiverStatusMsg_t>(support::statusBody({}, 0, {1, 2, 3})));
        const bool isBeyond = verdict.sequenceIdLast >= log_.size();
        next_ = verdict == NOTHING_HELD || isBeyond ? 0 : verdict.sequenceIdLast + 1;
        hasResent_ = false;
    }

    /** @return the event that went out, if one did */
    std::optional<Bytes> send(Archive& archive, Certainty certainty) {
        if (!isConnected() || isCaughtUp()) {
            return std::nullopt;
        }
        const Bytes event = log_[next_];
        const Filed filed = archive.fileEvent(link_, event, certainty);
        if (certainty == Certainty::CERTAIN) {
            const bool mustResend = filed == Filed::NEW_GENERATION && !hasResent_;
            hasResent_ = hasResent_ || mustResend;
            next_ = mustResend ? 0 : next_ + 1;
        } else {
            link_ = 0; // and nothing came behind it
        }
        return event;
    }

  private:
    U32_t& serial_;
    std::vector<Bytes> log_;
    LinkNumber link_ = 0;
    std::size_t next_ = 0;
    bool hasResent_ = false;
};

class ModelTest : public testing::TestWithParam<unsigned> {
  protected:
    void begin() {
        store_ = openArchiveInMemory();
        archive_ =
            std::make_unique<Archive>(*store_, ArchiveSettings{}, [](Level, const std::string&) {});
        safe_.clear();
        sent_.clear();
    }

    void commit() {
        archive_->commit();
        safe_.insert(sent_.begin(), sent_.end());
        sent_.clear();
    }

    void lose() {
        archive_->abandon();
        sent_.clear();
    }

    void act(ModelBlade& blade, unsigned choice) {
        switch (choice) {
        case 0:
            blade.rebuild();
            break;
        case 1:
            blade.cut();
            break;
        case 2:
            lose();
            blade.cut(); // the archiver died
            break;
        case 3:
            commit();
            break;
        case 4:
        case 5:
            blade.log();
            break;
        case 6:
            blade.send(*archive_, Certainty::ENDED);
            break;
        default:
            if (!blade.isConnected()) {
                blade.connect(*archive_, ++link_);
                commit();
            } else if (const auto event = blade.send(*archive_, Certainty::CERTAIN)) {
                sent_.insert(*event);
            }
            break;
        }
    }

    void sendAll(ModelBlade& blade) {
        for (int step = 0; !blade.isCaughtUp(); ++step) {
            ASSERT_LT(step, 1000) << "it never ends";
            sent_.insert(*blade.send(*archive_, Certainty::CERTAIN));
        }
    }

    // A rebuilt log that ends exactly where the claim does shows itself with its next event.
    void catchUp(ModelBlade& blade) {
        blade.cut();
        blade.connect(*archive_, ++link_);
        sendAll(blade);
        blade.log();
        sendAll(blade);
        commit();
    }

    void expectNewestIsTheBlades(const ModelBlade& blade) {
        const auto newest = store_->listGenerations().back().number;
        for (U32_t id = 0; id < blade.events().size(); ++id) {
            const auto held = store_->heldEvent(newest, id);
            ASSERT_TRUE(held) << id;
            ASSERT_EQ(held->image, blade.events()[id]) << id;
        }
    }

    void expectNothingSafeIsGone() {
        for (const GenerationInfo& generation : store_->listGenerations()) {
            store_->forEachEvent(generation.number,
                                 [this](const StoredEvent& event) { safe_.erase(event.image); });
        }
        EXPECT_TRUE(safe_.empty());
    }

    std::unique_ptr<Store> store_;
    std::unique_ptr<Archive> archive_;
    std::set<Bytes> sent_;
    std::set<Bytes> safe_;
    LinkNumber link_ = 0;
};

} // namespace

TEST_P(ModelTest, NewestGenerationIsTheBladesLogAndNothingSafeIsLost) {
    std::mt19937 random(GetParam());
    for (int history = 0; history < 100; ++history) {
        SCOPED_TRACE("history " + std::to_string(history));
        begin();
        U32_t serial = 1;
        ModelBlade blade(serial);
        const auto length = static_cast<unsigned>(10 + random() % 40);
        for (unsigned step = 0; step < length; ++step) {
            act(blade, static_cast<unsigned>(random() % 16));
        }
        catchUp(blade);
        expectNewestIsTheBlades(blade);
        expectNothingSafeIsGone();
        if (HasFailure()) {
            return;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, ModelTest, testing::Range(1U, 6U));
