# Fails unless PROGRAM defines what nothing in it calls, the hooks for a debugger and the library, and tells its
# version to who only looks for texts.
execute_process(COMMAND ${NM} -C ${PROGRAM} OUTPUT_VARIABLE symbols RESULT_VARIABLE result)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "${NM} cannot read ${PROGRAM}")
endif()
foreach(function
        empTestMsg empTestAlternateEventLog empEvRecordPrint
        VersionFullString handleUnexpectedSignals mpu::catchEvent altEventLog
        MPU_createMpuParams MPU_deleteMpuParams MPU_getCmapParams MPU_createCmapParams MPU_deleteCmapParams
        readNonXML MPU_BUGCHECK MPU_insert_on_list_head MPU_insert_on_list_tail_safe MPU_lzero)
    if(NOT symbols MATCHES " [Tt] ${function}\\(")
        message(FATAL_ERROR "${function} is not in ${PROGRAM}")
    endif()
endforeach()
if(NOT symbols MATCHES " [RDBrdb] Version\n")
    message(FATAL_ERROR "Version is not in ${PROGRAM}")
endif()
foreach(text "Version 1.2.0.3" "build-BLD_1_2_0_3" "[A-Z][a-z][a-z] [ 0-9][0-9] 20[0-9][0-9] [0-9:]+")
    file(STRINGS ${PROGRAM} found REGEX "^${text}$")
    if(NOT found)
        message(FATAL_ERROR "no text '${text}' in ${PROGRAM}")
    endif()
endforeach()
