#include "evctl/ring/blade_source.h"

#include "common/text.h"
#include "evctl/ring/ring_walk.h"

#include <cstring>

namespace evctl {
namespace {

class BladeSource final : public sources::Source {
  public:
    BladeSource(const std::string& name, const RequestOptions& request)
        : Source({.name = tools::escapedUtf8(name), .kind = sources::Kind::BLADE}) {
        Requester requester(request);
        const MPU_PARAMS_t& params = attachParams(request.where.block);
        RingWalk walk(requester,
                      {.enclosure = tools::fieldText(params.chassisSN, sizeof(params.chassisSN)),
                       .blade = tools::fieldText(params.serialStr, sizeof(params.serialStr)),
                       .slot = params.slotId});
        readAll(walk);
    }

    std::optional<sources::Event> next() override {
        if (next_ == answers_.size()) {
            return std::nullopt;
        }
        const InquiryAnswer& answer = answers_[next_++];
        return sources::Event{.view = answer.event(), .origin = &origin_};
    }

    void rewind() override { next_ = 0; }

  private:
    void readAll(RingWalk& walk) {
        InquiryAnswer newest = walk.newest();
        if (!newest.found()) {
            problems_.emplace_back("the event manager tells of no event");
            return;
        }
        const U32_t last = newest.event().header->evSequenceId;
        std::optional<InquiryAnswer> answer = walk.oldest();
        while (answer && answer->found()) {
            const U32_t id = answer->event().header->evSequenceId;
            answers_.push_back(*std::move(answer));
            if (id == last) {
                return;
            }
            answer = id < last ? walk.behind(id) : std::nullopt;
        }
        problems_.push_back("the event manager did not tell all of its events up to id " +
                            std::to_string(last));
    }

    std::vector<InquiryAnswer> answers_;
    size_t next_ = 0;
};

} // namespace

std::unique_ptr<sources::Source> bladeSource(const std::string& name,
                                             const RequestOptions& request) {
    return std::make_unique<BladeSource>(name, request);
}

sources::Sources openSourcesOrBlade(const std::string& path, const sources::OpenOptions& options) {
    if (!path.starts_with(BLADE_PREFIX)) {
        return sources::openSources(path, options);
    }
    RequestOptions request;
    KeyOptions& block = request.where.block;
    const std::string key = path.substr(strlen(BLADE_PREFIX));
    block.key = key.empty() ? keyOf({.key = {}, .otherName = "EVCTL_KEY, or as blade:KEY"})
                            : parseKey(path, key);
    sources::Sources found;
    try {
        found.push_back(bladeSource(path, request));
    } catch (const std::runtime_error& problem) {
        throw std::runtime_error(path + ": " + problem.what());
    }
    return found;
}

} // namespace evctl
