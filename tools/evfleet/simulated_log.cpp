#include "evfleet/simulated_log.h"

#include "protocol.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>

namespace evfleet {
namespace {

constexpr char NAME_PREFIX[] = "SIM-";
constexpr std::size_t PREFIX_LENGTH = sizeof(NAME_PREFIX) - 1;

// The first event of a log tells whether it is still the same one, so its data is random.
constexpr U32_t FIRST_DATA_SIZE = sizeof(EmpGetEvArchiverStatusMsg_t::evRandom);

constexpr U32_t YEAR = 365 * 86'400;
constexpr U32_t SIGNED_END = 0x80000000; // 2038

U64_t mix(U64_t value) {
    value += 0x9E3779B97F4A7C15;
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EB;
    return value ^ (value >> 31);
}

void setText(U8_t (&field)[EMP_ID_TEXT_SIZE], const std::string& text) {
    std::copy_n(text.begin(), std::min(text.size(), sizeof(field) - 1), field);
}

template <typename Image>
void append(Bytes& bytes, const Image& image) {
    const auto view = evarchive::viewOf(image);
    bytes.insert(bytes.end(), view.begin(), view.end());
}

EmpEvArchiverMsgHeader_t headerOf(U16_t type, U16_t length, U32_t handle) {
    EmpEvArchiverMsgHeader_t header = {};
    header.evArchiverMsgHdrVersion = evarchive::HEADER_VERSION;
    header.evArchiverMsgBodyLength = length;
    header.evArchiverMsgType = type;
    header.evArchiverMsgFlag = U16_t{EMP_E_EVENT_ARCHIVER_MSG_REQUEST};
    header.evArchiverMsgHandle = handle;
    return header;
}

} // namespace

void SimulatedLog::log(U32_t count) {
    next_ += count;
    if (next_ - first_ > shape_->ring) {
        first_ = next_ - shape_->ring;
    }
}

void SimulatedLog::rebuild() {
    ++rebuilt_;
    first_ = 1;
    next_ = 2;
    while (!claims_.empty()) {
        forgetClaim();
    }
}

void SimulatedLog::noteClaim(U32_t last) {
    last = std::min(last, next_ - 1);
    if (last < first_) {
        return;
    }
    if (!claims_.empty() && first_ <= claims_.back().last + 1) {
        claims_.back().last = std::max(claims_.back().last, last);
        return;
    }
    if (claims_.size() == MOST_CLAIMS) {
        forgetClaim();
    }
    claims_.push_back({first_, last});
}

void SimulatedLog::forgetClaim() {
    claimsForgotten_ += claims_.front().last - claims_.front().first + 1;
    claims_.erase(claims_.begin());
}

void SimulatedLog::clear(U32_t last) {
    first_ = std::max(first_, std::min(last + 1, next_ - 1));
}

U64_t SimulatedLog::randomOf(U32_t id, U32_t rebuilt) const {
    return mix(mix(shape_->seed ^ (U64_t{blade_} << 32)) ^
               (U64_t{isAlike(id) ? 0 : rebuilt} << 32 | id));
}

U32_t SimulatedLog::sizeOf(U32_t id, U32_t rebuilt) const {
    const U32_t spread = shape_->largest - shape_->smallest + 1;
    const U32_t size = shape_->smallest + static_cast<U32_t>(randomOf(id, rebuilt) >> 8) % spread;
    return id == 1 ? std::max(size, FIRST_DATA_SIZE) : size;
}

std::string SimulatedLog::bladeName() const {
    char name[EMP_ID_TEXT_SIZE];
    std::snprintf(name, sizeof(name), "%s%06u", NAME_PREFIX, blade_);
    return name;
}

U32_t SimulatedLog::timeOf(U32_t id) const {
    const U32_t error =
        shape_->clockError == 0
            ? 0
            : static_cast<U32_t>(mix(shape_->seed + blade_) % (U64_t{2} * shape_->clockError + 1)) -
                  shape_->clockError;
    const U32_t right = shape_->epoch + id + error;
    if (shape_->clockJumps == 0) {
        return right;
    }
    const U64_t drawn = mix(mix(shape_->seed + blade_) ^ (id / shape_->clockJumps));
    const auto far = static_cast<U32_t>(drawn >> 8) % YEAR;
    switch (drawn % 6) {
    case 0:
        return right + far;
    case 1:
        return right - far;
    case 2:
        return id; // as after a start without a clock
    case 3:
        return SIGNED_END - 2 + id % 5; // over the end of times with a sign
    case 4:
        return UINT32_MAX - far;
    default:
        return right;
    }
}

void SimulatedLog::appendEvent(Bytes& bytes, U32_t id, U32_t rebuilt) const {
    U64_t random = randomOf(id, rebuilt);
    const U32_t size = sizeOf(id, rebuilt);
    EmpEvLogHeader_t header = {};
    setText(header.evEnclosureId, shape_->enclosure);
    setText(header.evBladeId, bladeName());
    header.evSlotId = blade_;
    header.evInstanceNumber = INSTANCE;
    header.evSequenceId = id;
    header.evTime = timeOf(id);
    header.evStructLength = static_cast<U16_t>(size);
    header.evSource = static_cast<U8_t>(random % (evarchive::LARGEST_SOURCE + 1));
    header.evType = static_cast<U8_t>(EMP_E_TYPE_INFORMATION + random / 64 % 3);
    header.evCategory = EMP_E_CATEGORY_DISK;
    header.evIdVersion = 1;
    header.evId = static_cast<U16_t>(2 + random / 1024 % 1000); // not that of a dummy entry
    append(bytes, header);
    const std::size_t start = bytes.size();
    bytes.resize(start + size);
    for (std::size_t at = 0; at < size; at += sizeof(random)) {
        random = mix(random);
        for (std::size_t i = 0; i < std::min(sizeof(random), size - at); ++i) {
            bytes[start + at + i] = static_cast<U8_t>(random >> (8 * i));
        }
    }
}

void SimulatedLog::appendEventMessage(Bytes& bytes, U32_t id) const {
    const std::size_t length = EMP_EVENT_HEADER_SIZE + sizeOf(id, rebuilt_);
    append(bytes, headerOf(EMP_E_MSGS_LOG, static_cast<U16_t>(length), 0));
    appendEvent(bytes, id, rebuilt_);
}

void SimulatedLog::appendStatusRequest(Bytes& bytes, U32_t handle) const {
    Bytes oldest;
    appendEvent(oldest, first_, rebuilt_);
    const auto event = evarchive::imageOf<EmpEvLogHeader_t>(oldest);
    EmpGetEvArchiverStatusMsg_t status = {};
    std::memcpy(status.evEnclosureId, event.evEnclosureId, sizeof(status.evEnclosureId));
    std::memcpy(status.evBladeId, event.evBladeId, sizeof(status.evBladeId));
    status.evSlotId = event.evSlotId;
    status.evInstanceNumber = event.evInstanceNumber;
    status.evSequenceIdFirst = first_;
    status.evStructLength = event.evStructLength;
    const std::size_t size = oldest.size() - EMP_EVENT_HEADER_SIZE;
    std::copy_n(oldest.begin() + EMP_EVENT_HEADER_SIZE, std::min(size, sizeof(status.evRandom)),
                status.evRandom);
    append(bytes, headerOf(EMP_E_MSGS_GET_EVENT_ARCHIVER_STATUS, sizeof(status), handle));
    append(bytes, status);
    bytes.insert(bytes.end(), evarchive::STATUS_REQUEST_TRAILER, U8_t{0});
}

int bladeNumberOf(const std::string& name) {
    int number = -1;
    if (name.starts_with(NAME_PREFIX)) {
        const char* end = name.data() + name.size();
        const auto [stopped, error] = std::from_chars(name.data() + PREFIX_LENGTH, end, number);
        if (error != std::errc{} || stopped != end) {
            return -1;
        }
    }
    return number;
}

} // namespace evfleet
