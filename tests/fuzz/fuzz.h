/**
 * @file
 * What all fuzz targets share: how an input is read, and what a target gives.
 *
 * A target is one file that defines LLVMFuzzerTestOneInput() and fuzz::seeds(). The preset `fuzz`
 * links it with libFuzzer; every test run links it with seeds_main.cpp, which runs it over its
 * seeds and a few mutations of them. A finding is a report of a sanitizer, a call of fuzz::fail(),
 * an end of the process, or an input that takes too long.
 */
#ifndef TESTS_FUZZ_FUZZ_H
#define TESTS_FUZZ_FUZZ_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

using Bytes = std::vector<std::uint8_t>;

/** Inputs to begin with, small ones; a few hundred bytes each. Defined by the target. */
std::vector<Bytes> seeds();

/** Reports that the program under test did what it must not do. */
[[noreturn]] inline void fail(const std::string& what) {
    std::fprintf(stderr, "fuzz: %s\n", what.c_str());
    std::abort();
}

inline void expect(bool holds, const char* what) {
    if (!holds) {
        fail(what);
    }
}

/** The input, taken from its front. Numbers are big-endian; behind the end are zeros. */
class Input {
  public:
    Input(const std::uint8_t* data, std::size_t size) : bytes_(data, size) {}

    bool over() const { return bytes_.empty(); }
    std::uint8_t byte() {
        if (over()) {
            return 0;
        }
        std::uint8_t value = bytes_.front();
        bytes_ = bytes_.subspan(1);
        return value;
    }
    std::uint16_t half() {
        auto high = static_cast<unsigned>(byte()) << 8;
        return static_cast<std::uint16_t>(high | byte());
    }
    std::uint32_t word() {
        auto high = static_cast<std::uint32_t>(half()) << 16;
        return high | half();
    }
    /** At most @p count bytes. */
    std::span<const std::uint8_t> take(std::size_t count) {
        auto front = bytes_.first(count < bytes_.size() ? count : bytes_.size());
        bytes_ = bytes_.subspan(front.size());
        return front;
    }
    std::span<const std::uint8_t> rest() { return take(bytes_.size()); }
    std::string_view text() {
        auto all = rest();
        return {reinterpret_cast<const char*>(all.data()), all.size()};
    }

  private:
    std::span<const std::uint8_t> bytes_;
};

/** Builds a seed the way that Input reads it. */
class Seed {
  public:
    Seed& byte(unsigned value) {
        bytes.push_back(static_cast<std::uint8_t>(value));
        return *this;
    }
    Seed& half(unsigned value) { return byte(value >> 8).byte(value & 0xFFU); }
    Seed& word(std::uint32_t value) { return half(value >> 16).half(value & 0xFFFFU); }
    Seed& text(std::string_view more) {
        bytes.insert(bytes.end(), more.begin(), more.end());
        return *this;
    }

    Bytes bytes{};
};

inline Bytes bytesOf(std::string_view text) {
    return Bytes(text.begin(), text.end());
}

} // namespace fuzz

#endif
