#include "evctl/support/running_emp.h"

#include "version.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace evctl {
namespace {

constexpr size_t LONGEST_PROGRAM = 64U << 20U;

std::string contentOf(const std::string& path, size_t most) {
    std::ifstream file(path, std::ios::binary);
    std::string content;
    std::array<char, 65'536> piece{};
    while (content.size() < most && (file.read(piece.data(), piece.size()), file.gcount() > 0)) {
        content.append(piece.data(), static_cast<size_t>(file.gcount()));
    }
    return content;
}

std::vector<std::string> wordsOf(const std::string& process) {
    std::istringstream line(contentOf(process + "/cmdline", 1U << 20U));
    std::vector<std::string> words;
    for (std::string word; std::getline(line, word, '\0');) {
        words.push_back(word);
    }
    return words;
}

/** "emp KEY", perhaps behind the name of what interprets it. */
bool isEmpOf(const std::vector<std::string>& words, int key) {
    for (size_t at = 0; at < 2 && at + 1 < words.size(); at++) {
        if (words[at].substr(words[at].rfind('/') + 1) == "emp") {
            return strtol(words[at + 1].c_str(), nullptr, 0) == key;
        }
    }
    return false;
}

/** Behind the name in parentheses, in which anything may be, stand the state and the parent. */
std::string parentOf(const std::string& process) {
    std::string line = contentOf(process + "/stat", 4096);
    std::istringstream rest(line.substr(std::min(line.rfind(')') + 1, line.size())));
    std::string state;
    std::string parent;
    rest >> state >> parent;
    return parent;
}

std::vector<std::string> outputsNamedBy(const std::string& process) {
    std::vector<std::string> words = wordsOf(process);
    std::vector<std::string> outputs;
    for (size_t at = 0; at < words.size(); at++) {
        for (const std::string option : {"--emp-log", "--msm-log"}) {
            std::string value;
            if (words[at] == option && at + 1 < words.size()) {
                value = words[at + 1];
            } else if (words[at].starts_with(option + "=")) {
                value = words[at].substr(option.size() + 1);
            }
            if (!value.empty() && value != "-") {
                outputs.push_back(value.front() == '/' ? value : process + "/cwd/" + value);
            }
        }
    }
    return outputs;
}

/** A text of a field that it does not fill; nothing when it is none. */
std::optional<std::string> textOfField(std::string_view field) {
    std::string_view text = field.substr(0, field.find('\0'));
    bool isText =
        std::ranges::all_of(text, [](char letter) { return letter >= ' ' && letter < 0x7F; });
    bool isPadded = field.substr(text.size()).find_first_not_of('\0') == std::string_view::npos;
    return isText && isPadded && text.size() < field.size() ? std::optional<std::string>(text)
                                                            : std::nullopt;
}

} // namespace

std::string versionIn(std::string_view program) {
    constexpr std::string_view head = "Version ";
    constexpr size_t length = sizeof(Version_Structure_t) - offsetof(Version_Structure_t, string);
    for (size_t at = program.find(head);
         at != std::string_view::npos && at + length <= program.size();
         at = program.find(head, at + 1)) {
        auto field = [&](size_t offset, size_t size) {
            return textOfField(
                program.substr(at + offset - offsetof(Version_Structure_t, string), size));
        };
        auto number = field(offsetof(Version_Structure_t, string), sizeof(Version.string));
        auto build = field(offsetof(Version_Structure_t, ID), sizeof(Version.ID));
        auto time = field(offsetof(Version_Structure_t, build_time), sizeof(Version.build_time));
        if (number && build && time && time->size() + 1 == sizeof(Version.build_time)) {
            return number->substr(head.size()) + " | " + *build + " | " + *time;
        }
    }
    return "";
}

std::optional<RunningEmp> findRunningEmp(int key, const std::string& proc) {
    std::error_code error;
    std::filesystem::directory_iterator entry(proc, error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        std::string process = entry->path();
        if (isEmpOf(wordsOf(process), key)) {
            return RunningEmp{.version = versionIn(contentOf(process + "/exe", LONGEST_PROGRAM)),
                              .outputs = outputsNamedBy(proc + "/" + parentOf(process))};
        }
    }
    return std::nullopt;
}

} // namespace evctl
