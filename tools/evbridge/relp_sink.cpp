#include "sinks.h"
#include "syslog_form.h"

#include <charconv>
#include <set>

/** The usual library for this protocol keeps to itself which messages were answered, and a cursor
 * needs to know: so the protocol is spoken here. */
namespace evbridge {
namespace {

// Messages without an answer.
constexpr std::size_t WINDOW = 128;

// A receiver answers once the message is in its queue, for which it may wait.
constexpr std::chrono::seconds ANSWER_TIME{20};

constexpr U32_t LAST_NUMBER = 999'999'999;

// Of an answer; those of receivers are a line.
constexpr std::size_t LONGEST_ANSWER = 65'536;

constexpr char OFFERS[] = "relp_version=0\nrelp_software=evbridge\ncommands=syslog";

class RelpSink final : public Sink {
  public:
    RelpSink(std::unique_ptr<Channel> channel, U32_t enterprise)
        : channel_(std::move(channel)), enterprise_(enterprise) {}

    ~RelpSink() override {
        if (channel_->isUp() && open_.empty()) {
            try {
                put("close", "");
                takeAnswer();
            } catch (const SinkAway&) { // then it knows
            }
        }
    }
    RelpSink(const RelpSink&) = delete;
    RelpSink& operator=(const RelpSink&) = delete;

    void send(const Entry& entry) override {
        if (channel_->bringUp()) {
            begin();
        }
        put("syslog", syslogMessage(reportOf(entry), enterprise_));
        while (open_.size() >= WINDOW) {
            takeAnswer();
        }
    }

    void confirm() override {
        while (!open_.empty()) {
            takeAnswer();
        }
    }

  private:
    void begin() {
        open_.clear();
        came_.clear();
        number_ = 0;
        put("open", OFFERS);
        takeAnswer();
    }

    void put(const char* command, const std::string& data) {
        number_ = number_ == LAST_NUMBER ? 1 : number_ + 1;
        open_.insert(number_);
        channel_->put(std::to_string(number_) + " " + command + " " + std::to_string(data.size()) +
                      (data.empty() ? "" : " ") + data + "\n");
    }

    // "NUMBER COMMAND LENGTH[ DATA]\n"
    void takeAnswer() {
        const std::string number = takeWord();
        const std::string command = takeWord();
        const std::string length = takeWord();
        const std::string data = takeBytes(numberOf(length));
        if (takeBytes(1) != "\n") {
            channel_->fail("what it answers is no RELP");
        }
        if (command == "serverclose") {
            channel_->fail("it ends");
        }
        if (command != "rsp" || open_.erase(numberOf(number)) != 1) {
            channel_->fail("it answers what it was not asked");
        }
        if (!data.starts_with("200")) {
            channel_->fail("it refuses: " + data.substr(0, data.find('\n')));
        }
    }

    // Up to the blank, which goes too, or the line feed, which stays.
    std::string takeWord() {
        std::size_t end = 0;
        while ((end = came_.find_first_of(" \n")) == std::string::npos) {
            takeMore();
        }
        const std::string word = came_.substr(0, end);
        came_.erase(0, came_[end] == ' ' ? end + 1 : end);
        return word;
    }

    std::string takeBytes(std::size_t count) {
        while (came_.size() < count) {
            takeMore();
        }
        const std::string bytes = came_.substr(0, count);
        came_.erase(0, count);
        return bytes;
    }

    void takeMore() {
        came_ += channel_->take(ANSWER_TIME);
        if (came_.size() > LONGEST_ANSWER) {
            channel_->fail("its answer does not end");
        }
    }

    U32_t numberOf(const std::string& word) {
        U32_t number = 0;
        const char* end = word.data() + word.size();
        const auto [stop, error] = std::from_chars(word.data(), end, number);
        if (error != std::errc() || stop != end || number > LAST_NUMBER) {
            channel_->fail("what it answers is no RELP");
        }
        return number;
    }

    std::unique_ptr<Channel> channel_;
    U32_t enterprise_;
    U32_t number_ = 0;
    std::set<U32_t> open_; ///< numbers without an answer
    std::string came_;
};

} // namespace

std::unique_ptr<Sink> relpSink(std::unique_ptr<Channel> channel, U32_t enterprise) {
    return std::make_unique<RelpSink>(std::move(channel), enterprise);
}

} // namespace evbridge
