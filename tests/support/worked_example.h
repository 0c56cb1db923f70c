/**
 * @file
 * The worked examples of docs/formats.md; FORMATS_FILE is its path.
 */
#ifndef TESTS_WORKED_EXAMPLE_H
#define TESTS_WORKED_EXAMPLE_H

#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

/** The hex dump behind the comment "example: name"; its offsets are checked. */
inline std::vector<std::uint8_t> workedExample(const std::string& name) {
    std::ifstream file(FORMATS_FILE);
    std::string line;
    while (std::getline(file, line) && line != "<!-- example: " + name + " -->") {
    }
    std::getline(file, line); // ```
    std::vector<std::uint8_t> bytes;
    while (std::getline(file, line) && line != "```") {
        std::istringstream fields(line);
        std::string field;
        fields >> field; // the offset
        EXPECT_EQ(std::stoul(field, nullptr, 16), bytes.size());
        while (fields >> field) {
            bytes.push_back(static_cast<std::uint8_t>(std::stoul(field, nullptr, 16)));
        }
    }
    return bytes;
}

#endif
