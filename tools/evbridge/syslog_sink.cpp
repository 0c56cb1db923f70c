#include "sinks.h"
#include "syslog_form.h"

namespace evbridge {
namespace {

class SyslogSink final : public Sink {
  public:
    SyslogSink(std::unique_ptr<Channel> channel, bool isStream, U32_t enterprise)
        : channel_(std::move(channel)), isStream_(isStream), enterprise_(enterprise) {}

    void send(const Entry& entry) override {
        const std::string message = syslogMessage(reportOf(entry), enterprise_);
        channel_->bringUp();
        const bool isSent =
            channel_->put(isStream_ ? std::to_string(message.size()) + " " + message : message);
        if (!isSent) {
            channel_->fail("it takes no message of " + std::to_string(message.size()) + " bytes");
        }
    }

    void confirm() override {
        if (isStream_) {
            channel_->awaitAcknowledgement();
        }
    }

  private:
    std::unique_ptr<Channel> channel_;
    bool isStream_;
    U32_t enterprise_;
};

} // namespace

std::unique_ptr<Sink> syslogSink(std::unique_ptr<Channel> channel, bool isStream,
                                 U32_t enterprise) {
    return std::make_unique<SyslogSink>(std::move(channel), isStream, enterprise);
}

} // namespace evbridge
