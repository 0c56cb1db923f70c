# Installs libmpu into a directory of its own, builds the consumer outside the tree and runs it.
# -D: METHOD (cmake or pkgconfig), BUILD_DIR, SOURCE_DIR, CXX, FLAGS, TOOLCHAIN, EMULATOR, PKG_CONFIG
cmake_minimum_required(VERSION 3.25)
string(RANDOM LENGTH 8 suffix)
set(work "/tmp/mpu-installed-${suffix}")
set(prefix "${work}/prefix")

# Runs a command; a failure removes the directory and ends the test. Output: variable "output".
function(run what)
    execute_process(COMMAND ${ARGN} WORKING_DIRECTORY "${work}"
        RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE errors)
    if(NOT result EQUAL 0)
        file(REMOVE_RECURSE "${work}")
        message(FATAL_ERROR "${what} failed (${result}):\n${output}${errors}")
    endif()
    set(output "${output}" PARENT_SCOPE)
endfunction()

file(MAKE_DIRECTORY "${work}")
file(COPY "${SOURCE_DIR}/" DESTINATION "${work}/source")
run(Installation ${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${prefix}" --component mpu)
# The package must work wherever it has been moved to.
file(RENAME "${prefix}" "${work}/moved")
set(prefix "${work}/moved")

if(METHOD STREQUAL "cmake")
    run(Configuration ${CMAKE_COMMAND} -S "${work}/source" -B "${work}/build"
        "-DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN}" "-DCMAKE_CXX_COMPILER=${CXX}"
        "-DCMAKE_CXX_FLAGS=${FLAGS}" "-Dmpu_ROOT=${prefix}")
    run(Build ${CMAKE_COMMAND} --build "${work}/build")
else()
    file(GLOB_RECURSE descriptions "${prefix}/*/mpu.pc")
    get_filename_component(directory "${descriptions}" DIRECTORY)
    set(ENV{PKG_CONFIG_LIBDIR} "${directory}")
    run(pkg-config "${PKG_CONFIG}" --cflags --libs "mpu >= 1.2")
    string(STRIP "${output}" output)
    separate_arguments(flags UNIX_COMMAND "${FLAGS}")
    separate_arguments(package UNIX_COMMAND "${output}")
    file(MAKE_DIRECTORY "${work}/build")
    run(Compilation "${CXX}" -std=c++20 ${flags} -o "${work}/build/consumer"
        "${work}/source/consumer.cpp" ${package})
endif()
run(Consumer ${EMULATOR} "${work}/build/consumer")
file(REMOVE_RECURSE "${work}")

if(NOT output MATCHES "^839206E3 1 1\\.2\\.0\\.3 \\| build-BLD_1_2_0_3 \\| [A-Z][a-z][a-z] .*\n$")
    message(FATAL_ERROR "The consumer printed: ${output}")
endif()
