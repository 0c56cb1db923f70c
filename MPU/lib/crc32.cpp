#include "altEventLog.h"
#include "crc32_register.h"

using namespace mpu;

U32_t computeCRC32(const void* data, U32_t length) {
    return crc32OfRegister(crc32AddBytes(0xFFFFFFFFU, static_cast<const U8_t*>(data), length));
}
