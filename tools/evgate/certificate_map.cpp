#include "certificate_map.h"

#include <algorithm>
#include <iomanip>
#include <sstream>
#include <stdexcept>

namespace evgate {
namespace {

constexpr char ASK[] = "ask:";

bool matches(const std::string& pattern, const std::string& name) {
    if (pattern.ends_with('*')) {
        return name.starts_with(std::string_view(pattern).substr(0, pattern.size() - 1));
    }
    return pattern == name;
}

bool matchesAny(const Patterns& patterns, const std::string& name) {
    return std::ranges::any_of(
        patterns, [&name](const std::string& pattern) { return matches(pattern, name); });
}

bool isCertificateName(const std::string& word) {
    return std::ranges::any_of(
        std::initializer_list<const char*>{"DNS:", "URI:", "CN:"},
        [&word](const char* kind) { return word.starts_with(kind) && word.back() != ':'; });
}

// The words of a line; in "" one may hold blanks.
std::vector<std::string> wordsOf(const std::string& line) {
    std::vector<std::string> words;
    std::istringstream stream(line);
    std::string word;
    while (stream >> std::ws && stream.peek() != '#' && stream >> std::quoted(word)) {
        words.push_back(word);
    }
    return words;
}

Rights rightsIn(const std::vector<std::string>& words) {
    Rights rights;
    for (std::size_t i = 1; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (word.starts_with(ASK)) {
            rights.asks.push_back(word.substr(sizeof(ASK) - 1));
        } else {
            rights.speaks.push_back(word);
        }
    }
    return rights;
}

} // namespace

bool Rights::maySpeakFor(const std::string& enclosure) const {
    return matchesAny(speaks, enclosure);
}

bool Rights::mayAskAbout(const std::string& enclosure) const {
    return maySpeakFor(enclosure) || matchesAny(asks, enclosure);
}

CertificateMap CertificateMap::read(std::istream& text) {
    CertificateMap map;
    std::string line;
    for (unsigned number = 1; std::getline(text, line); ++number) {
        const auto words = wordsOf(line);
        if (words.empty()) {
            continue;
        }
        const std::string place = "line " + std::to_string(number) + ": ";
        if (!isCertificateName(words[0])) {
            throw std::runtime_error(place + "'" + words[0] +
                                     "' is no name of a certificate: DNS:, URI: or CN: and a name");
        }
        const Rights rights = rightsIn(words);
        if (rights.speaks.empty()) {
            throw std::runtime_error(place + words[0] + " speaks for no enclosure");
        }
        if (!map.entries_.emplace(words[0], rights).second) {
            throw std::runtime_error(place + words[0] + " stands here a second time");
        }
    }
    if (text.bad()) {
        throw std::runtime_error("it cannot be read");
    }
    return map;
}

Rights CertificateMap::rightsOf(const std::vector<std::string>& names) const {
    Rights all;
    for (const std::string& name : names) {
        if (const auto entry = entries_.find(name); entry != entries_.end()) {
            all.speaks.insert(all.speaks.end(), entry->second.speaks.begin(),
                              entry->second.speaks.end());
            all.asks.insert(all.asks.end(), entry->second.asks.begin(), entry->second.asks.end());
        }
    }
    return all;
}

} // namespace evgate
