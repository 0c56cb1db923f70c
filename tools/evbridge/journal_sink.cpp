#include "report.h"
#include "sinks.h"

#include <algorithm>
#include <cctype>

namespace evbridge {
namespace {

/** All that comes from here. */
constexpr char MESSAGE_ID[] = "6f1d3c0a52b94b7ea3a1d0c6c74e8d21";

// With its length, so that any bytes may be in it.
void add(std::string& text, const std::string& name, const std::string& value) {
    text.append(name).append(1, '\n');
    for (unsigned shift = 0; shift < 64; shift += 8) {
        text += static_cast<char>((U64_t{value.size()} >> shift) & 0xFF);
    }
    text.append(value).append(1, '\n');
}

std::string fieldName(const std::string& name) {
    std::string field = "EMP_";
    std::ranges::transform(name, std::back_inserter(field), [](unsigned char letter) {
        return static_cast<char>(std::toupper(letter));
    });
    return field;
}

/** @param longest bytes of the data and of the text */
std::string journalMessage(const Report& report, std::size_t longest) {
    std::string text;
    add(text, "MESSAGE", report.text.substr(0, longest));
    add(text, "MESSAGE_ID", MESSAGE_ID);
    add(text, "PRIORITY", std::to_string(report.severity));
    add(text, "SYSLOG_IDENTIFIER", report.source);
    add(text, "EMP_TIME", report.time);
    for (const auto& [name, value] : report.fields) {
        add(text, fieldName(name), value);
    }
    const auto data = report.data.first(std::min(report.data.size(), longest));
    add(text, "EMP_DATA", {reinterpret_cast<const char*>(data.data()), data.size()});
    if (report.text.size() > longest || report.data.size() > longest) {
        add(text, "EMP_CUT", "1");
    }
    return text;
}

class JournalSink final : public Sink {
  public:
    explicit JournalSink(std::unique_ptr<Channel> channel) : channel_(std::move(channel)) {}

    void send(const Entry& entry) override {
        const Report report = reportOf(entry);
        channel_->bringUp();
        if (!channel_->put(journalMessage(report, std::string::npos)) &&
            !channel_->put(journalMessage(report, DATA_LENGTH))) {
            channel_->fail("its socket takes no message");
        }
    }

    void confirm() override {}

  private:
    std::unique_ptr<Channel> channel_;
};

} // namespace

std::unique_ptr<Sink> journalSink(std::unique_ptr<Channel> channel) {
    return std::make_unique<JournalSink>(std::move(channel));
}

} // namespace evbridge
