#include "parking.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace evarchive {

std::vector<SeriesKey> logsOf(const Batch::Request& request, View body, const Archive& archive) {
    if (Batch::isAboutEvent(request.kind)) {
        return archive.logsOf(request.link, body);
    }
    if (request.kind == Batch::Kind::STATUS) {
        return {logOf(imageOf<EmpGetEvArchiverStatusMsg_t>(body))};
    }
    return {}; // an inquiry reads, whatever is locked
}

bool Parking::lock(const std::vector<SeriesKey>& logs) {
    bool isNew = false;
    for (const SeriesKey& log : logs) {
        if (std::ranges::count(locked_, log) == 0) {
            locked_.push_back(log);
            logs_.insert(log);
            isNew = true;
        }
    }
    return isNew;
}

bool Parking::mustWait(const Batch::Request& request, View body, const Archive& archive) const {
    return !isEmpty() &&
           (links_.contains(request.link) ||
            std::ranges::any_of(logsOf(request, body, archive),
                                [this](const SeriesKey& log) { return logs_.contains(log); }));
}

bool Parking::take(const Batch::Request& request, View body, const Archive& archive) {
    if (!mustWait(request, body, archive)) {
        return false;
    }
    const std::vector<SeriesKey> logs = logsOf(request, body, archive);
    links_.insert(request.link);
    logs_.insert(logs.begin(), logs.end());
    if (waiting_->isEmpty()) {
        waiting_->handedOver = std::chrono::steady_clock::now();
    }
    waiting_->add(request.link, request.kind, body, request.ticket);
    return true;
}

std::vector<LinkNumber> Parking::takeLinks() {
    std::vector<LinkNumber> links;
    std::ranges::set_difference(links_, taken_, std::back_inserter(links));
    taken_ = links_;
    return links;
}

std::unique_ptr<Batch> Parking::release(const std::vector<SeriesKey>& stillLocked) {
    locked_ = stillLocked;
    logs_ = std::set<SeriesKey>(stillLocked.begin(), stillLocked.end());
    links_.clear();
    taken_.clear();
    return std::exchange(waiting_, std::make_unique<Batch>());
}

} // namespace evarchive
