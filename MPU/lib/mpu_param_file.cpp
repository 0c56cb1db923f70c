#include "mpu_param_file.h"

#include "mpu_params.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <strings.h>

using namespace mpu;

namespace {

/** Longer lines go on as lines of their own. */
constexpr size_t LINE_SIZE = 1024;

bool isBlank(char character) {
    return isspace(static_cast<unsigned char>(character)) != 0;
}

bool isBlankOrControl(char character) {
    return isBlank(character) || iscntrl(static_cast<unsigned char>(character)) != 0;
}

void trimEnd(char* text, bool (*isUnwanted)(char)) {
    size_t length = strlen(text);
    while (length > 0 && isUnwanted(text[length - 1])) {
        length--;
    }
    text[length] = '\0';
}

const char* skipBlanks(const char* text) {
    while (isBlank(*text)) {
        text++;
    }
    return text;
}

const NonXML_s* findTag(const char* name) {
    for (const NonXML_s* row = tagList; row->name != nullptr; row++) {
        if (strcasecmp(row->name, name) == 0) {
            return row;
        }
    }
    return nullptr;
}

bool isText(const NonXML_s& row) {
    return row.type == NONXML_E_TYPE_STRING || row.type == NONXML_E_TYPE_BSTRING;
}

void setFlag(const char* name) {
    for (const NonXML_Flag_s* flag = nonXML_Flags; flag->name != nullptr; flag++) {
        if (strcasecmp(flag->name, name) == 0) {
            pMpuParams->flags = pMpuParams->flags | flag->mask;
            return;
        }
    }
    fprintf(stderr, "+++ Warning: Unrecognized flag in configuration file: %s\n", name);
}

/** The index counts up to the field's length itself; a negative one is out of range too. */
void storeElement(const NonXML_s& row, const char* key, long long index, const char* value) {
    // KEEP: one element past the field is accepted.
    if (static_cast<U64_t>(index) > row.count) {
        fprintf(stderr, "Error: Array index out of range for %s\n", key);
        return;
    }
    nonXMLStoreValue(row, key, static_cast<U32_t>(index), value);
}

/** A name of the table, perhaps with the index at the start of its value: "MacAddress=1-0:17". */
void assignByName(const NonXML_s& row, const char* key, const char* value) {
    const char* dash = isText(row) ? nullptr : strchr(value, '-');
    if (dash == nullptr) {
        storeElement(row, key, 0, value);
        return;
    }
    // KEEP: "Slot=-1" is element 0 and the value 1. The number ends at the dash by itself.
    long long index = dash == value ? 0 : strtoll(value, nullptr, 10);
    storeElement(row, key, index, skipBlanks(dash + 1));
}

/** A name with the index behind it: "MacAddress-1=0:17". Returns false when it is none. */
bool assignByIndexedName(const char* key, const char* value) {
    const char* dash = strchr(key, '-');
    if (dash == nullptr) {
        return false;
    }
    char name[LINE_SIZE];
    size_t length = static_cast<size_t>(dash - key);
    memcpy(name, key, length);
    name[length] = '\0';
    trimEnd(name, isBlank);
    const NonXML_s* row = findTag(name);
    if (row == nullptr || isText(*row)) {
        return false;
    }
    storeElement(*row, name, strtoll(dash + 1, nullptr, 10), value);
    return true;
}

void assign(const char* key, const char* value) {
    const NonXML_s* row = findTag(key);
    if (row != nullptr) {
        assignByName(*row, key, value);
    } else if (!assignByIndexedName(key, value)) {
        fprintf(stderr, "+++ Warning: Unrecognized option in configuration file: %s\n", key);
    }
}

void readLine(char* line) {
    if (line[0] == '#') {
        return;
    }
    trimEnd(line, isBlankOrControl);
    if (line[0] == '\0') {
        return;
    }
    char* equals = strchr(line, '=');
    if (equals == nullptr) {
        setFlag(line);
        return;
    }
    *equals = '\0';
    trimEnd(line, isBlank);
    assign(line, skipBlanks(equals + 1));
}

} // namespace

char* readNonXML(FILE* file) {
    char line[LINE_SIZE];
    if (pMpuParams == nullptr) {
        return nullptr;
    }
    while (fgets(line, sizeof(line), file) != nullptr) {
        readLine(line);
    }
    return nullptr;
}
