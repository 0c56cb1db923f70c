#include "pg_looked.h"

namespace evarchive {
namespace {

constexpr U32_t PAGE_GROWTH = 16;
constexpr U32_t LARGEST_PAGE = 256;
constexpr U64_t ID_END = U64_t{1} << 32;

} // namespace

const std::optional<StoredEvent>* LookedUp::find(const GenerationKey& generation, U32_t id) const {
    const auto page = pages_.find(generation);
    if (page == pages_.end()) {
        return nullptr;
    }
    const auto found = page->second.ids.find(id);
    return found != page->second.ids.end() ? &found->second : nullptr;
}

U32_t LookedUp::pageFrom(const GenerationKey& generation, U32_t id) const {
    const auto page = pages_.find(generation);
    if (page == pages_.end() || page->second.end != id || page->second.count == 0) {
        return 1;
    }
    const U32_t count = std::min(PAGE_GROWTH * page->second.count, LARGEST_PAGE);
    return static_cast<U32_t>(std::min<U64_t>(count, ID_END - id));
}

void LookedUp::putPage(const GenerationKey& generation, U32_t first, U32_t count,
                       std::vector<StoredEvent> held) {
    Page page{{}, U64_t{first} + count, count};
    for (U64_t id = first; id < page.end; ++id) {
        page.ids.emplace_hint(page.ids.end(), static_cast<U32_t>(id), std::nullopt);
    }
    for (StoredEvent& event : held) {
        page.ids[event.sequenceId] = std::move(event);
    }
    pages_[generation] = std::move(page);
}

void LookedUp::put(const GenerationKey& generation, U32_t id, std::optional<StoredEvent> held) {
    pages_[generation].ids[id] = std::move(held);
}

void LookedUp::confirm(const GenerationKey& generation, U32_t id) {
    const auto page = pages_.find(generation);
    if (page == pages_.end()) {
        return;
    }
    const auto found = page->second.ids.find(id);
    if (found != page->second.ids.end() && found->second) {
        found->second->doubtful = false;
    }
}

void LookedUp::forget(const GenerationKey& generation, U32_t id) {
    if (find(generation, id) != nullptr) {
        pages_.erase(generation);
    }
}

} // namespace evarchive
