#include "pg_arrays.h"

#include <stdexcept>

namespace evarchive {
namespace {

// Dimensions, whether there are nulls, the elements' type, their count, the first one's index.
constexpr std::size_t HEAD_SIZE = 20;

unsigned widthOf(PgType type) {
    switch (type) {
    case PgType::BOOLEAN:
        return 1;
    case PgType::SMALLINT:
        return 2;
    case PgType::INTEGER:
        return 4;
    case PgType::BIGINT:
    case PgType::TIMESTAMPTZ:
        return 8;
    default:
        return 0;
    }
}

} // namespace

U32_t arrayTypeOf(PgType element) {
    switch (element) {
    case PgType::BOOLEAN:
        return 1000;
    case PgType::BYTEA:
        return 1001;
    case PgType::SMALLINT:
        return 1005;
    case PgType::INTEGER:
        return 1007;
    case PgType::TEXT:
        return 1009;
    case PgType::BIGINT:
        return 1016;
    case PgType::TIMESTAMPTZ:
        return 1185;
    }
    throw std::logic_error("no such type");
}

void putNumber(Bytes& bytes, S64_t value, unsigned size) {
    while (size-- > 0) {
        bytes.push_back(static_cast<U8_t>(static_cast<U64_t>(value) >> (8 * size)));
    }
}

PgArray::PgArray(PgType element) : element_(element), width_(widthOf(element)), bytes_(HEAD_SIZE) {}

void PgArray::addNumber(S64_t value) {
    putNumber(bytes_, width_, 4);
    putNumber(bytes_, value, width_);
    ++size_;
}

void PgArray::addBytes(View value) {
    putNumber(bytes_, static_cast<S64_t>(value.size()), 4);
    bytes_.insert(bytes_.end(), value.begin(), value.end());
    ++size_;
}

void PgArray::addNull() {
    putNumber(bytes_, -1, 4);
    hasNull_ = true;
    ++size_;
}

View PgArray::finish() {
    Bytes head;
    putNumber(head, 1, 4);
    putNumber(head, hasNull_ ? 1 : 0, 4);
    putNumber(head, static_cast<S64_t>(element_), 4);
    putNumber(head, size_, 4);
    putNumber(head, 1, 4);
    std::ranges::copy(head, bytes_.begin());
    return bytes_;
}

void PgArray::clear() {
    bytes_.resize(HEAD_SIZE);
    size_ = 0;
    hasNull_ = false;
}

} // namespace evarchive
