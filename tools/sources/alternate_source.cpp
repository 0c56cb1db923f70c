#include "altEventLog.h"
#include "common/text.h"
#include "sources/alternate_files.h"
#include "sources/source.h"

#include <algorithm>

namespace sources {
namespace {

class AlternateSource final : public Source {
  public:
    AlternateSource(Origin origin, std::vector<AelFile> files)
        : Source(std::move(origin)), files_(std::move(files)) {
        std::erase_if(files_, [this](const AelFile& file) {
            if (file.fate == AelFate::STORED) {
                return false;
            }
            problems_.push_back((file.name.empty() ? "" : tools::escapedText(file.name) + ": ") +
                                file.reason);
            return true;
        });
    }

    std::optional<Event> next() override {
        if (next_ == files_.size()) {
            return std::nullopt;
        }
        const AelFile& file = files_[next_];
        return Event{.view = file.event(), .origin = &origin_, .position = next_++};
    }

    void rewind() override { next_ = 0; }

  private:
    std::vector<AelFile> files_;
    size_t next_ = 0;
};

bool isAlternate(const AelFile& file) {
    return file.name.starts_with(EMP_AEL_FILE_PREFIX);
}

} // namespace

std::unique_ptr<Source> alternateFileSource(Origin origin, Bytes bytes) {
    std::vector<AelFile> files(1);
    files[0].bytes = std::move(bytes);
    judgeAelFile(files[0]);
    return std::make_unique<AlternateSource>(std::move(origin), std::move(files));
}

std::unique_ptr<Source> alternateDirectorySource(Origin origin, const std::string& directory) {
    std::vector<AelFile> files = readAelDirectory(directory);
    std::erase_if(files, [](const AelFile& file) { return !isAlternate(file); });
    return files.empty() ? nullptr
                         : std::make_unique<AlternateSource>(std::move(origin), std::move(files));
}

} // namespace sources
