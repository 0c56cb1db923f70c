/**
 * @file
 * What a storage holds, as text.
 */
#ifndef EXHAUSTIVE_TEXT_H
#define EXHAUSTIVE_TEXT_H

#include "store.h"

#include <set>
#include <sstream>

namespace exhaustive {

using namespace evarchive;

// An event by its id and its time, which no two have in common.
inline std::string nameOfEvent(const Bytes& image) {
    if (image.size() < sizeof(EmpEvLogHeader_t)) {
        return "-";
    }
    const auto header = imageOf<EmpEvLogHeader_t>(image);
    return std::to_string(U32_t{header.evSequenceId}) + "." + std::to_string(U32_t{header.evTime});
}

inline std::string heldText(Store& store) {
    std::ostringstream out;
    std::set<Bytes> held;
    for (const GenerationInfo& info : store.listGenerations()) {
        out << info.key.blade.blade << '/' << info.number.generation << ':';
        store.forEachEvent(info.number, [&](const StoredEvent& event) {
            out << nameOfEvent(event.image) << (event.doubtful ? "? " : " ");
            held.insert(event.image);
        });
    }
    std::set<std::string> aside;
    store.forEachAside([&](const AsideEvent& event) {
        if (!held.contains(event.image)) {
            aside.insert(event.key.blade.blade + '/' + nameOfEvent(event.image));
        }
    });
    for (const std::string& event : aside) {
        out << '~' << event;
    }
    return out.str();
}

} // namespace exhaustive

#endif
