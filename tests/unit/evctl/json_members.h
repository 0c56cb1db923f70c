/**
 * @file
 * The names of members in what evctl prints as JSON, and whether its manual page has them.
 */
#ifndef EVCTL_TEST_JSON_MEMBERS_H
#define EVCTL_TEST_JSON_MEMBERS_H

#include "run.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace test {

/** The names of members, but for those that are values: of types, endpoints, fields,
 * and of events in other objects. */
inline void addMembers(const nlohmann::json& json, std::set<std::string>& names) {
    const std::set<std::string> ofValues = {"control", "names", "event"};
    for (const auto& [name, value] : json.items()) {
        if (json.is_object()) {
            names.insert(name);
        }
        if (value.is_object() && name == "fields") {
            for (const auto& field : value) {
                addMembers(field, names);
            }
            continue;
        }
        const bool isCounts = value.is_object() && (name == "types" || name == "sources");
        if (value.is_structured() && !isCounts && !ofValues.contains(name)) {
            addMembers(value, names);
        }
    }
}

/** Holds that the page names each member that a command has printed. @return how many */
inline size_t expectOnThePage(const std::vector<std::string>& command, const std::string& printed) {
    const std::string page = pageOfJson(command);
    std::set<std::string> said;
    std::istringstream lines(printed);
    for (std::string line; std::getline(lines, line);) {
        addMembers(nlohmann::json::parse(line), said);
    }
    for (const std::string& member : said) {
        const bool isThere = std::regex_search(page, std::regex("\\b" + member + "\\b"));
        EXPECT_TRUE(isThere) << command.back() << ": " << member;
    }
    return said.size();
}

} // namespace test

#endif
