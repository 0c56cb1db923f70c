#include "mpu_param_file.h"
#include "mpu_params.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <strings.h>

// Numbers are read in 64 bits and then cut to their field, so that every host stores the same.

namespace mpu {

namespace {

/** Where a value goes: one element of a field of the block. */
struct Destination_t {
    size_t offset;
    size_t size;
};

constexpr U32_t NONXML_TYPES = NONXML_E_TYPE_SIZE + 1;
/** Element size that a type needs; 0: any. */
constexpr U16_t requiredSize[NONXML_TYPES] = {4, 1, 1, 2, 8, 0, 0, 8, 4, 8, 4, 4};

/** KEEP: an index one past its field is accepted; only what lies behind the block is left out. */
void storeByte(const Destination_t& to, size_t at, U8_t byte) {
    size_t offset = to.offset + at;
    if (offset < MPU_PARAMS_SIZE) {
        reinterpret_cast<U8_t*>(pMpuParams)[offset] = byte;
    }
}

/** Stores the low bytes of a number, as many as the element has, most significant first. */
void storeNumber(const Destination_t& to, U64_t number) {
    for (size_t i = to.size; i-- > 0; number >>= 8) {
        storeByte(to, i, static_cast<U8_t>(number));
    }
}

U64_t decimal(const char* text) {
    return static_cast<U64_t>(strtoll(text, nullptr, 10));
}

U64_t anyBase(const char* text) {
    return static_cast<U64_t>(strtoll(text, nullptr, 0));
}

/** The text behind the next separator, or NULL when this was the last part. */
const char* nextPart(const char* part, char separator) {
    const char* end = strchr(part, separator);
    return end == nullptr ? nullptr : end + 1;
}

void storeEnum(const Destination_t& to, const NonXML_Enums_s* keyword, const char* value) {
    for (; keyword->name != nullptr; keyword++) {
        if (strcasecmp(keyword->name, value) == 0) {
            storeNumber(to, keyword->value);
            return;
        }
    }
    fprintf(stderr, "+++ Warning: Unrecognized enumeration in configuration file - %s\n", value);
    fprintf(stderr, "    Using default %d\n", static_cast<int>(keyword->value));
    storeNumber(to, keyword->value);
}

/** Copies a text and fills the rest of its field. */
void storeText(const Destination_t& to, const char* key, const char* value, U8_t fill) {
    size_t length = strlen(value);
    if (length > to.size) {
        fprintf(stderr, "String for %s too long.  Truncating to %d\n", key,
                static_cast<int>(to.size));
        length = to.size;
    }
    for (size_t i = 0; i < to.size; i++) {
        storeByte(to, i, i < length ? static_cast<U8_t>(value[i]) : fill);
    }
}

void storeString(const Destination_t& to, const char* key, const char* value) {
    storeText(to, key, value, 0);
    // KEEP: a text of exactly the field's length loses its last character without a warning.
    storeByte(to, to.size - 1, 0);
}

void storeMacAddress(const Destination_t& to, const char* part) {
    // KEEP: the parts are decimal, "17" is 0x11.
    for (size_t i = 0; i < sizeof(MpuMacAddress_t::address); i++) {
        storeByte(to, i, static_cast<U8_t>(part == nullptr ? 0 : decimal(part)));
        part = part == nullptr ? nullptr : nextPart(part, ':');
    }
}

void storeIpAddress(const Destination_t& to, const char* part) {
    // KEEP: missing parts still shift, "10.1" is 10.1.0.0.
    U32_t address = 0;
    for (int i = 0; i < 4; i++) {
        address <<= 8;
        if (part != nullptr) {
            address += static_cast<U32_t>(decimal(part));
            part = nextPart(part, '.');
        }
    }
    storeNumber(to, address);
}

void storeVersion(const Destination_t& to, const char* part) {
    // KEEP: the third part is the build number; the maintenance number cannot be set by a file.
    constexpr size_t places[] = {offsetof(MpuVersion_t, major), offsetof(MpuVersion_t, minor),
                                 offsetof(MpuVersion_t, buildNum)};
    for (size_t i = 0; i < 3 && part != nullptr; i++, part = nextPart(part, '.')) {
        storeNumber({to.offset + places[i], sizeof(U16be_t)}, decimal(part));
    }
}

void storeAdapters(const Destination_t& to, const char* value) {
    U64_t adapters = anyBase(value) << 16;
    const char* second = nextPart(value, '/');
    if (second != nullptr) {
        adapters += anyBase(second);
    }
    storeNumber(to, adapters);
}

unsigned shiftOfSuffix(char suffix) {
    switch (tolower(static_cast<unsigned char>(suffix))) {
    case 'k':
        return 10;
    case 'm':
        return 20;
    case 'g':
        return 30;
    default:
        return 0;
    }
}

void storeSize(const Destination_t& to, const char* value) {
    char* suffix;
    U64_t number = static_cast<U64_t>(strtoll(value, &suffix, 10));
    storeNumber(to, number << shiftOfSuffix(*suffix));
}

bool isSound(const NonXML_s& row) {
    U32_t type = static_cast<U32_t>(row.type);
    if (type >= NONXML_TYPES) {
        fprintf(stderr, "+++ Internal error parsing configuration file - %d\n",
                static_cast<int>(type));
        return false;
    }
    if (requiredSize[type] != 0 && row.size != requiredSize[type]) {
        fprintf(stderr, "Internal error: Entry size does not match type! %d != %d\n", row.size,
                requiredSize[type]);
        return false;
    }
    return true;
}

} // namespace

void nonXMLStoreValue(const NonXML_s& row, const char* key, U32_t index, const char* value) {
    if (!isSound(row)) {
        return;
    }
    Destination_t to{size_t{row.offset} + size_t{index} * row.size, row.size};
    switch (row.type) {
    case NONXML_E_TYPE_U32:
    case NONXML_E_TYPE_U8:
    case NONXML_E_TYPE_U16:
    case NONXML_E_TYPE_U64:
        return storeNumber(to, anyBase(value));
    case NONXML_E_TYPE_ENUM:
        return storeEnum(to, row.enums, value);
    case NONXML_E_TYPE_STRING:
        return storeString(to, key, value);
    case NONXML_E_TYPE_BSTRING:
        return storeText(to, key, value, ' ');
    case NONXML_E_TYPE_MACADDR:
        return storeMacAddress(to, value);
    case NONXML_E_TYPE_IPADDR:
        return storeIpAddress(to, value);
    case NONXML_E_TYPE_VERSION:
        return storeVersion(to, value);
    case NONXML_E_TYPE_ADAPTERS:
        return storeAdapters(to, value);
    case NONXML_E_TYPE_SIZE:
        return storeSize(to, value);
    }
}

} // namespace mpu
