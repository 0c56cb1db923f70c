# What leaves an event for a dying process calls nothing that a signal handler may not call.
# -D: NM, OBJECTS (of the library)
cmake_minimum_required(VERSION 3.25)

# Of POSIX's list, and what the GNU C library adds to it: mkstemp, gettimeofday, strerrordesc_np.
set(ALLOWED access mkdir "mkstemp(64)?" "lseek(64)?" write fsync close getpid gettimeofday
    "(__)?mem(cpy|set|move)(_chk)?" "strn?len" strerrordesc_np __errno_location)
# The library's own, which are such, too; and what compilers and sanitizers put in.
list(APPEND ALLOWED _Z12computeCRC32PKvj "_Z12mpuGetTime64P[lx]Pi"
    # Of functions of the headers that nothing here calls, where nothing is optimised away.
    readlink sched_yield
    __stack_chk_fail _GLOBAL_OFFSET_TABLE_ "__(asan|ubsan)_.*" "_ZTVN10__cxxabiv1.*" "_(save|rest)gpr_.*")
list(JOIN ALLOWED "|" ALLOWED)

list(FILTER OBJECTS INCLUDE REGEX "/alt_event_file\\.cpp\\.o$")
execute_process(COMMAND "${NM}" -P -u ${OBJECTS} OUTPUT_VARIABLE lines COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "[^\n ]+ U[^\n]*" needed "${lines}")
list(TRANSFORM needed REPLACE " U.*$" "")
if(NOT "write" IN_LIST needed)
    message(FATAL_ERROR "The list of symbols is incomplete: ${needed}")
endif()
list(FILTER needed EXCLUDE REGEX "^(${ALLOWED})$")
if(needed)
    message(FATAL_ERROR "Not for signal handlers: ${needed}")
endif()
