#include "batch.h"

namespace evarchive {

void Batch::add(LinkNumber link, Kind kind, View body, U32_t ticket) {
    requests_.push_back(
        {link, kind, static_cast<U32_t>(bytes_.size()), static_cast<U32_t>(body.size()), ticket});
    bytes_.insert(bytes_.end(), body.begin(), body.end());
    isUrgent_ = isUrgent_ || kind == Kind::STATUS || kind == Kind::INQUIRY;
}

void Batch::clear() {
    bytes_.clear();
    requests_.clear();
    isUrgent_ = false;
}

} // namespace evarchive
