# Installs libmpu into a directory of its own, builds the consumer outside the tree and runs it.
# -D: METHOD (cmake or pkgconfig), GENERATOR, BUILD_DIR, SOURCE_DIR, EXAMPLES_DIR, CC, CXX, FLAGS, TOOLCHAIN, EMULATOR,
# PKG_CONFIG
cmake_minimum_required(VERSION 3.25)
# That of the build itself: no other one needs to be installed.
set(ENV{CMAKE_GENERATOR} "${GENERATOR}")
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
    run("Configuration of the examples" ${CMAKE_COMMAND} -S "${EXAMPLES_DIR}" -B "${work}/examples"
        "-DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN}" "-DCMAKE_C_COMPILER=${CC}"
        "-DCMAKE_CXX_COMPILER=${CXX}" "-DCMAKE_C_FLAGS=${FLAGS}" "-DCMAKE_CXX_FLAGS=${FLAGS}"
        "-Dmpu_ROOT=${prefix}")
    run("Build of the examples" ${CMAKE_COMMAND} --build "${work}/examples")
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
    file(MAKE_DIRECTORY "${work}/examples")
    # The oldest dialects that <mpu/event.h> serves. The compiler of C links it: libmpu asks for no library of C++.
    foreach(standard c89 c99)
        run("Compilation as ${standard}" "${CC}" -std=${standard} -Wall -Wextra -pedantic -Werror ${flags}
            -o "${work}/examples/log_event" "${EXAMPLES_DIR}/log_event.c" ${package})
    endforeach()
    run("Compilation as C++11" "${CXX}" -std=c++11 -Wall -Wextra -pedantic -Werror ${flags}
        -o "${work}/examples/log_events" "${EXAMPLES_DIR}/log_events.cpp" ${package})
endif()
# Without arguments it says how it is used.
execute_process(COMMAND ${EMULATOR} "${work}/examples/log_event"
    RESULT_VARIABLE result ERROR_VARIABLE errors)
if(NOT result EQUAL 2 OR NOT errors STREQUAL "Usage: log_event KEY TEXT\n")
    file(REMOVE_RECURSE "${work}")
    message(FATAL_ERROR "The example ended with ${result}: ${errors}")
endif()

# With the folder on the path no header hides one of the system or <event.h> of another library.
execute_process(COMMAND "${CXX}" -E -v -x c++ /dev/null
    OUTPUT_QUIET ERROR_VARIABLE search COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "\n /[^\n]+" search "${search}")
file(GLOB headers RELATIVE "${prefix}/include/mpu" "${prefix}/include/mpu/*.h")
list(LENGTH headers count)
list(LENGTH search directories)
if(count LESS 10 OR directories LESS 3 OR "event.h" IN_LIST headers)
    message(FATAL_ERROR "Installed headers: ${headers}; searched: ${search}")
endif()
foreach(directory ${search})
    string(STRIP "${directory}" directory)
    foreach(header ${headers})
        if(EXISTS "${directory}/${header}")
            message(FATAL_ERROR "${header} hides ${directory}/${header}")
        endif()
    endforeach()
endforeach()
run(Consumer ${EMULATOR} "${work}/build/consumer")
file(REMOVE_RECURSE "${work}")

if(NOT output MATCHES "^839206E3 1 1\\.2\\.0\\.3 \\| build-BLD_1_2_0_3 \\| [A-Z][a-z][a-z] .*\n$")
    message(FATAL_ERROR "The consumer printed: ${output}")
endif()
