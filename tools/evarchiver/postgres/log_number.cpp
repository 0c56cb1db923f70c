#include "log_number.h"

#include <openssl/sha.h>

namespace evarchive {
namespace {

void put(Bytes& bytes, U32_t value, unsigned size) {
    while (size-- > 0) {
        bytes.push_back(static_cast<U8_t>(value >> (8 * size)));
    }
}

void putText(Bytes& bytes, const std::string& text) {
    const std::size_t size = std::min<std::size_t>(text.size(), EMP_ID_TEXT_SIZE);
    put(bytes, static_cast<U32_t>(size), 2);
    bytes.insert(bytes.end(), text.begin(), text.begin() + static_cast<std::ptrdiff_t>(size));
}

/** Takes an identity apart. */
class Parts {
  public:
    explicit Parts(View bytes) : rest_(bytes) {}

    U32_t number(unsigned size) {
        U32_t value = 0;
        for (const U8_t byte : take(size)) {
            value = (value << 8) | byte;
        }
        return value;
    }

    std::string text() {
        const View bytes = take(number(2));
        return {bytes.begin(), bytes.end()};
    }

    bool isEmpty() const { return rest_.empty(); }

  private:
    View take(std::size_t size) {
        if (size > rest_.size()) {
            throw StoreError("the archive holds an identity that is none");
        }
        const View taken = rest_.first(size);
        rest_ = rest_.subspan(size);
        return taken;
    }

    View rest_;
};

} // namespace

Bytes identityOf(const SeriesKey& key) {
    Bytes bytes;
    putText(bytes, key.blade.enclosure);
    putText(bytes, key.blade.blade);
    put(bytes, key.blade.slot, 4);
    put(bytes, key.instance, 4);
    return bytes;
}

SeriesKey keyOfIdentity(View identity) {
    Parts parts(identity);
    SeriesKey key;
    key.blade.enclosure = parts.text();
    key.blade.blade = parts.text();
    key.blade.slot = parts.number(4);
    key.instance = parts.number(4);
    if (!parts.isEmpty()) {
        throw StoreError("the archive holds an identity that is none");
    }
    return key;
}

Bytes digestOf(View bytes) {
    Bytes digest(SHA256_DIGEST_LENGTH);
    SHA256(bytes.data(), bytes.size(), digest.data());
    return digest;
}

namespace {

U64_t hashOf(View identity, U8_t salt) {
    Bytes salted(identity.begin(), identity.end());
    salted.push_back(salt);
    const Bytes digest = digestOf(salted);
    U64_t number = 0;
    for (const U8_t byte : View(digest).first(8)) {
        number = (number << 8) | byte;
    }
    return number;
}

constexpr unsigned LOW_BITS = 48;
constexpr U64_t LOW = (U64_t{1} << LOW_BITS) - 1;
constexpr U64_t SIGN = U64_t{1} << 63;
constexpr U64_t PLACES = 1 << 16;

} // namespace

SeriesNumber logNumber(View identity, U8_t salt) {
    const U64_t number = hashOf(identity, 0);
    return static_cast<SeriesNumber>(salt == 0 ? number
                                               : (number & ~LOW) | (hashOf(identity, salt) & LOW));
}

// Numbers are signed: the lowest ones have the first bit set.
U32_t nodeOf(SeriesNumber log, U32_t nodes) {
    const U64_t place = (static_cast<U64_t>(log) ^ SIGN) >> LOW_BITS;
    return static_cast<U32_t>(place * nodes / PLACES);
}

std::optional<SeriesNumber> firstLogOf(U32_t node, U32_t nodes) {
    const U64_t place = (node * PLACES + nodes - 1) / nodes;
    return place < PLACES ? std::optional(static_cast<SeriesNumber>((place << LOW_BITS) ^ SIGN))
                          : std::nullopt;
}

} // namespace evarchive
