# Every symbol that libmpu defines for others must be declared by a header that it installs, or stand in its own
# namespace.
# -D: NM, LIBRARY, SOURCE_DIR
cmake_minimum_required(VERSION 3.25)

execute_process(COMMAND "${NM}" -C -g --defined-only "${LIBRARY}" OUTPUT_VARIABLE lines
    COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "[0-9a-f]+ [A-Zu] [^\n]+" lines "${lines}")
list(TRANSFORM lines REPLACE "^[0-9a-f]+ [A-Zu] ([A-Za-z0-9_:.]+).*$" "\\1")
list(REMOVE_DUPLICATES lines)
foreach(expected IN ITEMS MPU_getMpuParams mpu::catchEvent Version)
    if(NOT expected IN_LIST lines)
        message(FATAL_ERROR "The list of symbols is incomplete: no ${expected}")
    endif()
endforeach()
# The sanitizers' marks of our own objects, and what the compiler itself shares between files.
list(FILTER lines EXCLUDE REGEX "^(mpu::|__odr_asan|DW.ref)")

file(GLOB headers "${SOURCE_DIR}/MPU/include/*.h" "${SOURCE_DIR}/MPU/include/mpu/*.h"
    "${SOURCE_DIR}/include/*.h")
set(declared "")
foreach(header IN LISTS headers)
    file(READ "${header}" text)
    string(APPEND declared "${text}")
endforeach()
foreach(symbol IN LISTS lines)
    if(NOT declared MATCHES "[^A-Za-z0-9_]${symbol}[^A-Za-z0-9_]")
        list(APPEND foreign "${symbol}")
    endif()
endforeach()
if(foreign)
    message(FATAL_ERROR "libmpu defines what no header declares: ${foreign}")
endif()
