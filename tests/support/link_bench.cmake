# Calls that tests/support/link_bench.cpp answers. With 64-bit offsets the C library's names differ.
set(LINK_BENCH ${PROJECT_SOURCE_DIR}/tests/support/link_bench.cpp)
set(LINK_BENCH_WRAP
    _Z8empFaultPKciS0_S0_z _Z12empMmsgPrintPK6MMSG_s
    _Z21empEvArchiverMsgPrintPK18EmpEvArchiverMsg_s _Z13get_timestampPc
    send recv select sched_yield clock_gettime socket connect getsockopt close fcntl fcntl64 pread pread64 malloc)

# link_test(name sources...): a test on the bench.
function(link_test name)
    blade_test(${name} SOURCES ${ARGN} ${LINK_BENCH} LIBRARIES empcore WRAP ${LINK_BENCH_WRAP})
endfunction()
