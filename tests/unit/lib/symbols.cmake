# Every symbol that some libraries need and do not define themselves must be one of libc.
# -D: NM, LIBRARIES (a blank between two), CXX, SANITIZE
cmake_minimum_required(VERSION 3.25)

function(list_symbols result)
    execute_process(COMMAND "${NM}" -P ${ARGN} OUTPUT_VARIABLE lines COMMAND_ERROR_IS_FATAL ANY)
    # One symbol a line, its name first; a version may follow the name. Other lines name members.
    string(REGEX MATCHALL "(^|\n)[A-Za-z_.$][A-Za-z0-9_.$]*[@ ][^\n]*" lines "${lines}")
    list(TRANSFORM lines REPLACE "^\n?([^@ ]+)[@ ].*$" "\\1")
    set(${result} "${lines}" PARENT_SCOPE)
endfunction()

separate_arguments(LIBRARIES)
execute_process(COMMAND "${CXX}" -print-file-name=libc.so.6 OUTPUT_VARIABLE libc
    OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
list_symbols(needed -u ${LIBRARIES})
list_symbols(own --defined-only ${LIBRARIES})
list_symbols(offered -D --defined-only "${libc}")
foreach(expected IN ITEMS shmget mkstemp64 sigaction)
    if(NOT expected IN_LIST needed OR NOT expected IN_LIST offered)
        message(FATAL_ERROR "The lists of symbols are incomplete: no ${expected}")
    endif()
endforeach()

# What the linker makes itself, and what stands in libc's second, static part.
list(APPEND offered _GLOBAL_OFFSET_TABLE_ atexit)
list(REMOVE_ITEM needed ${own} ${offered})
if(SANITIZE)
    list(LENGTH needed before)
    list(FILTER needed EXCLUDE REGEX "^__(asan|ubsan)_")
    list(LENGTH needed after)
    math(EXPR skipped "${before} - ${after}")
    message(STATUS "${skipped} references to the sanitizers' own functions are not judged")
endif()
if(needed)
    list(REMOVE_DUPLICATES needed)
    message(FATAL_ERROR "${LIBRARIES}: needs what libc does not have: ${needed}")
endif()
