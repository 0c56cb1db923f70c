/**
 * @file
 * The tables behind the parameter file: which name fills which bytes of the parameter block.
 */
#ifndef MPU_PARAM_FILE_H
#define MPU_PARAM_FILE_H

#include "fixed_width.h"

namespace mpu {

/** How the text of a value becomes bytes. */
enum NonXML_types_e : int {
    NONXML_E_TYPE_U32 = 0,
    NONXML_E_TYPE_ENUM = 1,
    NONXML_E_TYPE_U8 = 2,
    NONXML_E_TYPE_U16 = 3,
    NONXML_E_TYPE_U64 = 4,
    NONXML_E_TYPE_STRING = 5,    ///< always ends in a NUL
    NONXML_E_TYPE_BSTRING = 6,   ///< padded with blanks, no NUL
    NONXML_E_TYPE_MACADDR = 7,   ///< six decimal bytes, "0:17:164:1:2:3"
    NONXML_E_TYPE_IPADDR = 8,    ///< "192.168.0.1"
    NONXML_E_TYPE_VERSION = 9,   ///< "major.minor.build"
    NONXML_E_TYPE_ADAPTERS = 10, ///< "upper/lower" halves of a word
    NONXML_E_TYPE_SIZE = 11,     ///< a number with k, m or g behind it
};

/** A keyword of an enumeration. The row without a name ends the table and holds the default. */
struct NonXML_Enums_s {
    const char* name;
    U32_t value;
};

/** A field that a parameter file can set. */
struct NonXML_s {
    const char* name; ///< NULL ends the table
    NonXML_types_e type;
    U16_t offset; ///< of element 0 in the parameter block
    U16_t size;   ///< bytes of one element
    U8_t count;   ///< elements
    const NonXML_Enums_s* enums;
};

/** A bit of the block's flags that a parameter file can set. */
struct NonXML_Flag_s {
    const char* name; ///< NULL ends the table
    U32_t mask;
};

extern const NonXML_s tagList[];
extern const NonXML_Flag_s nonXML_Flags[];

/**
 * Converts a value and stores it in the attached block.
 * @param row   the field
 * @param key   the name as the file has it, for complaints
 * @param index element, 0 to row.count; what lies behind the end of the block is not written
 * @param value text behind the "="
 */
void nonXMLStoreValue(const NonXML_s& row, const char* key, U32_t index, const char* value);

} // namespace mpu

#endif
