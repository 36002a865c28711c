# trelan_install_man(<target> <section> <see also>...)
#
# Makes a man page of the help texts of a program, and installs it. A build for another machine, or
# one with sanitizers, does without: its programs may not run here as they are.
function(trelan_install_man target section)
    if(CMAKE_CROSSCOMPILING OR TRELAN_SANITIZE)
        return()
    endif()
    find_package(Python3 REQUIRED COMPONENTS Interpreter)
    set(script "${PROJECT_SOURCE_DIR}/cmake/manpage.py")
    set(page "${CMAKE_CURRENT_BINARY_DIR}/${target}.${section}")
    add_custom_command(OUTPUT "${page}"
        COMMAND "${Python3_EXECUTABLE}" "${script}" "$<TARGET_FILE:${target}>" ${section}
            ${PROJECT_VERSION} "${page}" ${ARGN}
        DEPENDS ${target} "${script}"
        VERBATIM)
    add_custom_target(${target}_man ALL DEPENDS "${page}")
    install(FILES "${page}" DESTINATION "${CMAKE_INSTALL_MANDIR}/man${section}")
endfunction()
