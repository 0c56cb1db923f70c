#include "evctl/views/lines.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace evctl {
namespace {

constexpr char NAME_SUFFIX[] = "Name";

std::string plainText(const Json& value) {
    if (value.is_null()) {
        return "-";
    }
    if (value.is_string()) {
        return value.get<std::string>();
    }
    if (!value.is_array()) {
        return value.dump();
    }
    std::string text;
    for (const Json& element : value) {
        text += text.empty() ? "" : " ";
        text += plainText(element);
    }
    return text;
}

/** The name beside a number; an empty text when it has none. */
std::string nameOf(const Json& json, const std::string& member) {
    auto name = json.find(member + NAME_SUFFIX);
    return name != json.end() && name->is_string() ? name->get<std::string>() : "";
}

/** Whether a member only names the number of another one. */
bool namesAnother(const Json& json, const std::string& member) {
    size_t length = member.size() - std::min(member.size(), sizeof(NAME_SUFFIX) - 1);
    return member.ends_with(NAME_SUFFIX) && json.contains(member.substr(0, length));
}

} // namespace

std::string namedLines(const Json& json, size_t width, const std::string& indent) {
    std::string lines;
    for (const auto& [member, value] : json.items()) {
        if (namesAnother(json, member)) {
            continue;
        }
        if (value.is_object()) {
            lines += indent + member + "\n" + namedLines(value, width, indent + "  ");
            continue;
        }
        std::string line = indent + member;
        line.resize(std::max(line.size() + 1, width), ' ');
        std::string name = nameOf(json, member);
        std::string text = plainText(value);
        if (!name.empty()) {
            line.append(name).append("(").append(text).append(")\n");
        } else {
            line.append(text).append("\n");
        }
        lines += line;
    }
    return lines;
}

} // namespace evctl
