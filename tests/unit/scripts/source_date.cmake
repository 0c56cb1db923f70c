# A build with SOURCE_DATE_EPOCH carries that date in the version record. -D: SOURCE_DIR, CXX, GENERATOR
string(RANDOM LENGTH 8 suffix)
set(build "/tmp/source-date-${suffix}")
set(ENV{SOURCE_DATE_EPOCH} 86399)
set(object MPU/lib/CMakeFiles/mpu.dir/version.cpp.o)
execute_process(COMMAND ${CMAKE_COMMAND} -S "${SOURCE_DIR}" -B "${build}" -G "${GENERATOR}"
    "-DCMAKE_CXX_COMPILER=${CXX}" -DBLADE_TESTS=OFF -DBLADE_TOOLS=OFF
    RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE output)
if(status EQUAL 0)
    # Whatever the build's own environment says.
    unset(ENV{SOURCE_DATE_EPOCH})
    execute_process(COMMAND ${CMAKE_COMMAND} --build "${build}" --target ${object}
        RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE output)
endif()
if(status EQUAL 0)
    file(STRINGS "${build}/${object}" output REGEX "Jan  1 1970 23:59:59")
endif()
file(REMOVE_RECURSE "${build}")
if(NOT output MATCHES "Jan  1 1970 23:59:59")
    message(FATAL_ERROR "${output}")
endif()
