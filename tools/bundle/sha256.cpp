#include "bundle/tar.h"

#include <array>
#include <bit>

namespace bundle {
namespace {

constexpr size_t BLOCK = 64; // bytes

using Words = std::array<U32_t, 8>;

// The first bits of the fractional parts of the cube roots of the first 64 primes.
constexpr std::array<U32_t, 64> ROUND = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

/** The message schedule of a block. */
std::array<U32_t, 64> scheduleOf(const U8_t* block) {
    std::array<U32_t, 64> w{};
    for (size_t i = 0; i < 16; i++) {
        w[i] = U32_t{block[4 * i]} << 24 | U32_t{block[4 * i + 1]} << 16 |
               U32_t{block[4 * i + 2]} << 8 | block[4 * i + 3];
    }
    for (size_t i = 16; i < 64; i++) {
        U32_t s0 = std::rotr(w[i - 15], 7) ^ std::rotr(w[i - 15], 18) ^ w[i - 15] >> 3;
        U32_t s1 = std::rotr(w[i - 2], 17) ^ std::rotr(w[i - 2], 19) ^ w[i - 2] >> 10;
        w[i] = w[i - 16] + s0 + w[i - 7] + s1;
    }
    return w;
}

void addBlock(Words& hash, const U8_t* block) {
    const std::array<U32_t, 64> w = scheduleOf(block);
    auto [a, b, c, d, e, f, g, h] = hash;
    for (size_t i = 0; i < 64; i++) {
        U32_t s1 = std::rotr(e, 6) ^ std::rotr(e, 11) ^ std::rotr(e, 25);
        U32_t t1 = h + s1 + ((e & f) ^ (~e & g)) + ROUND[i] + w[i];
        U32_t s0 = std::rotr(a, 2) ^ std::rotr(a, 13) ^ std::rotr(a, 22);
        U32_t t2 = s0 + ((a & b) ^ (a & c) ^ (b & c));
        h = g, g = f, f = e, e = d + t1;
        d = c, c = b, b = a, a = t1 + t2;
    }
    const Words more = {a, b, c, d, e, f, g, h};
    for (size_t i = 0; i < hash.size(); i++) {
        hash[i] += more[i];
    }
}

} // namespace

std::string sha256(std::span<const U8_t> bytes) {
    Words hash = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                  0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
    size_t whole = bytes.size() / BLOCK * BLOCK;
    for (size_t at = 0; at < whole; at += BLOCK) {
        addBlock(hash, &bytes[at]);
    }
    // The rest, a bit, zeros, and the length in bits at the end of a block.
    std::vector<U8_t> rest(bytes.begin() + static_cast<std::ptrdiff_t>(whole), bytes.end());
    rest.push_back(0x80);
    rest.resize((rest.size() + 8 + BLOCK - 1) / BLOCK * BLOCK);
    U64_t bits = U64_t{bytes.size()} * 8;
    for (size_t i = 1; i <= 8; i++, bits >>= 8) {
        rest[rest.size() - i] = static_cast<U8_t>(bits);
    }
    for (size_t at = 0; at < rest.size(); at += BLOCK) {
        addBlock(hash, &rest[at]);
    }
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (U32_t word : hash) {
        for (int shift = 28; shift >= 0; shift -= 4) {
            text += digits[word >> shift & 15];
        }
    }
    return text;
}

std::string checksumLine(const std::string& name, std::span<const U8_t> bytes) {
    std::string shown;
    for (char letter : name) {
        switch (letter) {
        case '\\':
            shown += "\\\\";
            break;
        case '\n':
            shown += "\\n";
            break;
        case '\r':
            shown += "\\r";
            break;
        default:
            shown += letter;
        }
    }
    return (shown == name ? "" : "\\") + sha256(bytes) + "  " + shown + "\n";
}

} // namespace bundle
