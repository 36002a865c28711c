# trelan_install_library(TARGET <target> PACKAGE <package> NAMESPACE <namespace>
#                        PKGCONFIG <name> INCLUDE_SUBDIR <folder> DESCRIPTION <text>
#                        HEADERS <file>...
#                        [CMAKE_DEPENDS <find_dependency arguments as one text>...]
#                        [PKGCONFIG_REQUIRES <module>...])
#
# Makes a shared library a product: the library, its headers, a CMake package that defines
# <namespace>::<EXPORT_NAME of the target>, and a pkg-config file. The version is the VERSION
# property of the target. Installed files hold no absolute path, so that the installed tree may be
# moved: each library finds the other libraries beside itself.
include(CMakePackageConfigHelpers)

set(TRELAN_CMAKE_TEMPLATES "${CMAKE_CURRENT_LIST_DIR}")

function(trelan_install_library)
    cmake_parse_arguments(PARSE_ARGV 0 ARG ""
        "TARGET;PACKAGE;NAMESPACE;PKGCONFIG;INCLUDE_SUBDIR;DESCRIPTION"
        "HEADERS;CMAKE_DEPENDS;PKGCONFIG_REQUIRES")
    get_target_property(version ${ARG_TARGET} VERSION)
    get_target_property(library ${ARG_TARGET} OUTPUT_NAME)
    set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/${ARG_PACKAGE}")

    # Qt keeps pointers into a library that has registered types, resources or start-up functions, so
    # that a loaded one must stay loaded. Inline functions of Qt and of the standard library would be
    # exported wherever the optimizer leaves a copy of them: exports.map keeps the copies inside.
    set(exports "${TRELAN_CMAKE_TEMPLATES}/exports.map")
    target_link_options(${ARG_TARGET} PRIVATE -Wl,-z,nodelete "-Wl,--version-script=${exports}")
    set_property(TARGET ${ARG_TARGET} APPEND PROPERTY LINK_DEPENDS "${exports}")
    set_target_properties(${ARG_TARGET} PROPERTIES INSTALL_RPATH "${TRELAN_RPATH_LIB}")

    install(TARGETS ${ARG_TARGET} EXPORT ${ARG_PACKAGE}Targets
        LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}")
    install(FILES ${ARG_HEADERS}
        DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/${ARG_INCLUDE_SUBDIR}")
    install(EXPORT ${ARG_PACKAGE}Targets
        NAMESPACE ${ARG_NAMESPACE}::
        DESTINATION "${package_dir}")

    # Each CMake package looks for the others beside itself first, since the tree may have been moved.
    set(dependencies "")
    foreach(dependency IN LISTS ARG_CMAKE_DEPENDS)
        string(APPEND dependencies
            "find_dependency(${dependency} HINTS \"\${CMAKE_CURRENT_LIST_DIR}/..\")\n")
    endforeach()
    configure_package_config_file(
        "${TRELAN_CMAKE_TEMPLATES}/LibraryConfig.cmake.in"
        "${CMAKE_CURRENT_BINARY_DIR}/${ARG_PACKAGE}Config.cmake"
        INSTALL_DESTINATION "${package_dir}"
        NO_SET_AND_CHECK_MACRO)
    write_basic_package_version_file(
        "${CMAKE_CURRENT_BINARY_DIR}/${ARG_PACKAGE}ConfigVersion.cmake"
        VERSION ${version}
        COMPATIBILITY SameMajorVersion)
    install(FILES
        "${CMAKE_CURRENT_BINARY_DIR}/${ARG_PACKAGE}Config.cmake"
        "${CMAKE_CURRENT_BINARY_DIR}/${ARG_PACKAGE}ConfigVersion.cmake"
        DESTINATION "${package_dir}")

    set(pkgconfig_dir "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig")
    file(RELATIVE_PATH pc_to_prefix "${pkgconfig_dir}" "${CMAKE_INSTALL_PREFIX}")
    file(RELATIVE_PATH pc_to_libdir "${pkgconfig_dir}" "${CMAKE_INSTALL_FULL_LIBDIR}")
    file(RELATIVE_PATH pc_to_includedir "${pkgconfig_dir}" "${CMAKE_INSTALL_FULL_INCLUDEDIR}")
    list(JOIN ARG_PKGCONFIG_REQUIRES ", " requires)
    configure_file(
        "${TRELAN_CMAKE_TEMPLATES}/Library.pc.in"
        "${CMAKE_CURRENT_BINARY_DIR}/${ARG_PKGCONFIG}.pc" @ONLY)
    install(FILES "${CMAKE_CURRENT_BINARY_DIR}/${ARG_PKGCONFIG}.pc"
        DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
endfunction()

# trelan_install_program(<target>)
#
# Installs a program that finds the libraries relative to itself, so that the tree may be moved.
function(trelan_install_program target)
    set_target_properties(${target} PROPERTIES INSTALL_RPATH "${TRELAN_RPATH_BIN}")
    install(TARGETS ${target} RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")
endfunction()
