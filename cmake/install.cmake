# What is installed beside libmpu. The components are the Debian packages: event-manager, evctl,
# evarchiver, evbridge, event-manager-catalog, and mpu for libmpu-dev. One of them alone:
# cmake --install build/release --component evctl
include(GNUInstallDirs)
set(BLADE_SYSTEMD_DIR lib/systemd/system CACHE STRING "Where units are installed")
set(BLADE_ZSH_FOLDER site-functions CACHE STRING "Folder of completions below share/zsh")
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr" AND CMAKE_INSTALL_SYSCONFDIR STREQUAL "etc")
    set(CMAKE_INSTALL_SYSCONFDIR /etc)
endif()
set(PACKAGING ${PROJECT_SOURCE_DIR}/packaging)
set(PACKAGING_BUILD ${PROJECT_BINARY_DIR}/packaging)
set(BLADE_DOCDIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/event-manager)

set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
    ${PACKAGING}/systemd/hardening ${PACKAGING}/completion/words.awk)

# Programs and their pages. install_program(component directory target...)
function(install_program component directory)
    foreach(program ${ARGN})
        install(TARGETS ${program} RUNTIME DESTINATION ${directory} COMPONENT ${component})
        file(GLOB page ${PROJECT_SOURCE_DIR}/docs/man/${program}.[1-8])
        install_pages(${component} ${page})
    endforeach()
endfunction()

function(install_pages component)
    foreach(page ${ARGN})
        string(REGEX REPLACE ".*\\." "" section ${page})
        install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section}
            COMPONENT ${component})
    endforeach()
endfunction()

# Sections of pages that units name.
foreach(program blade evarchiver evbridge evgate evweb)
    file(GLOB page ${PROJECT_SOURCE_DIR}/docs/man/${program}.[1-8])
    string(TOUPPER ${program}_SECTION section)
    string(REGEX REPLACE ".*\\." "" ${section} ${page})
endforeach()

# The completion of a program, one file a shell: each shell finds it by the program's name.
function(install_completion component)
    file(READ ${PACKAGING}/completion/words.awk WORDS)
    foreach(PROGRAM ${ARGN})
        foreach(shell bash zsh fish)
            configure_file(${PACKAGING}/completion/program.${shell}.in
                ${PACKAGING_BUILD}/${PROGRAM}.${shell} @ONLY)
        endforeach()
        install(FILES ${PACKAGING_BUILD}/${PROGRAM}.bash RENAME ${PROGRAM}
            DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions
            COMPONENT ${component})
        install(FILES ${PACKAGING_BUILD}/${PROGRAM}.zsh RENAME _${PROGRAM}
            DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/zsh/${BLADE_ZSH_FOLDER}
            COMPONENT ${component})
        install(FILES ${PACKAGING_BUILD}/${PROGRAM}.fish
            DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/fish/vendor_completions.d
            COMPONENT ${component})
    endforeach()
endfunction()

# A unit; its hardening is the same for all.
function(install_unit component unit)
    file(READ ${PACKAGING}/systemd/hardening HARDENING)
    configure_file(${PACKAGING}/systemd/${unit}.in ${PACKAGING_BUILD}/${unit} @ONLY)
    install(FILES ${PACKAGING_BUILD}/${unit} DESTINATION ${BLADE_SYSTEMD_DIR}
        COMPONENT ${component})
endfunction()

# A service: its unit, the users and directories of its component.
function(install_service component unit user)
    install_unit(${component} ${unit})
    foreach(kind sysusers tmpfiles)
        install(FILES ${PACKAGING}/etc/${kind}-${user}.conf RENAME ${user}.conf
            DESTINATION lib/${kind}.d COMPONENT ${component})
    endforeach()
endfunction()

install_program(event-manager ${CMAKE_INSTALL_SBINDIR} emp msm blade)
install_pages(event-manager ${PROJECT_SOURCE_DIR}/docs/man/kelta_eventlog.5)
install_completion(event-manager msm blade)
install_service(event-manager blade@.service blade)
install(FILES ${PACKAGING}/etc/blade.conf
    DESTINATION ${CMAKE_INSTALL_SYSCONFDIR}/event-manager COMPONENT event-manager)
install(FILES ${PACKAGING}/etc/blade
    DESTINATION ${CMAKE_INSTALL_SYSCONFDIR}/default COMPONENT event-manager)
install(FILES ${PACKAGING}/etc/logrotate-blade RENAME event-manager
    DESTINATION ${CMAKE_INSTALL_SYSCONFDIR}/logrotate.d COMPONENT event-manager)
# The pages lie as they do here, so that what they refer to is there, pictures too. The licence is
# called as the system calls it.
file(READ README.md README)
string(REPLACE "](LICENSE)" "](copyright)" README "${README}")
file(CONFIGURE OUTPUT ${PACKAGING_BUILD}/README.md CONTENT "${README}" @ONLY)
set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS README.md)
install(FILES LICENSE RENAME copyright DESTINATION ${BLADE_DOCDIR} COMPONENT event-manager)
install(FILES ${PACKAGING_BUILD}/README.md ARCHITECTURE.md demo/blade.conf
    DESTINATION ${BLADE_DOCDIR} COMPONENT event-manager)
install(DIRECTORY docs DESTINATION ${BLADE_DOCDIR} COMPONENT event-manager
    FILES_MATCHING PATTERN *.md PATTERN *.svg PATTERN *.png
    PATTERN man EXCLUDE PATTERN kaitai EXCLUDE)

install_program(evctl ${CMAKE_INSTALL_BINDIR} evctl)
install_completion(evctl evctl)
# Started by evctl alone.
if(TARGET evctl-pg)
    install(TARGETS evctl-pg RUNTIME DESTINATION libexec/event-manager COMPONENT evctl)
endif()
install(FILES docs/kaitai/kelta_eventlog.ksy
    DESTINATION ${CMAKE_INSTALL_DATADIR}/event-manager/kaitai COMPONENT evctl)
install(FILES tools/dissector/blade.lua
    DESTINATION ${CMAKE_INSTALL_DATADIR}/event-manager/wireshark COMPONENT evctl)
install(PROGRAMS tools/dissector/blade_record.py
    DESTINATION ${CMAKE_INSTALL_DATADIR}/event-manager/wireshark COMPONENT evctl)

# The archiver does not run on the board.
if(TARGET evarchiver)
    install_program(evarchiver ${CMAKE_INSTALL_SBINDIR} evarchiver)
    install_program(evarchiver ${CMAKE_INSTALL_BINDIR} evfleet)
    install_completion(evarchiver evarchiver evfleet)
    install_service(evarchiver evarchiver.service evarchiver)
    install(FILES ${PACKAGING}/etc/evarchiver
        DESTINATION ${CMAKE_INSTALL_SYSCONFDIR}/default COMPONENT evarchiver)
    install(DIRECTORY sql/fleet DESTINATION ${CMAKE_INSTALL_DATADIR}/event-manager/sql
        COMPONENT evarchiver)
endif()

# The gate needs OpenSSL.
if(TARGET evgate)
    install_program(evarchiver ${CMAKE_INSTALL_SBINDIR} evgate)
    install_completion(evarchiver evgate)
    install_unit(evarchiver evgate.service)
    install(FILES ${PACKAGING}/etc/evgate
        DESTINATION ${CMAKE_INSTALL_SYSCONFDIR}/default COMPONENT evarchiver)
endif()

# So does the page its library.
if(TARGET evweb)
    install_program(evarchiver ${CMAKE_INSTALL_SBINDIR} evweb)
    install_completion(evarchiver evweb)
    install_unit(evarchiver evweb.service)
    install(FILES ${PACKAGING}/etc/evweb
        DESTINATION ${CMAKE_INSTALL_SYSCONFDIR}/default COMPONENT evarchiver)
endif()

# A package of its own: the library of SNMP brings many others.
if(TARGET evbridge)
    install_program(evbridge ${CMAKE_INSTALL_SBINDIR} evbridge)
    install_completion(evbridge evbridge)
    install_service(evbridge evbridge.service evbridge)
    install(FILES ${PACKAGING}/etc/evbridge
        DESTINATION ${CMAKE_INSTALL_SYSCONFDIR}/default COMPONENT evbridge)
    install(DIRECTORY share/event-manager/mibs DESTINATION ${CMAKE_INSTALL_DATADIR}/event-manager
        COMPONENT evbridge)
endif()

file(GLOB LIBRARY_PAGES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/man/*.3)
install_pages(mpu ${LIBRARY_PAGES})
install(FILES examples/log_event.c examples/log_events.cpp examples/CMakeLists.txt
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/libmpu-dev/examples COMPONENT mpu)

# A package of its own: evctl, evweb and evbridge read it, and none of them needs another.
install(DIRECTORY share/event-manager/catalog.d
    DESTINATION ${CMAKE_INSTALL_DATADIR}/event-manager COMPONENT event-manager-catalog)
install(FILES share/event-manager/catalog.schema.json
    DESTINATION ${CMAKE_INSTALL_DATADIR}/event-manager COMPONENT event-manager-catalog)
