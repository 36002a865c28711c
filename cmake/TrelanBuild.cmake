# Options of all targets: language level, warnings, sanitizers, log context.

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

option(TRELAN_WERROR "Treat warnings as errors" ON)
set(TRELAN_SANITIZE "" CACHE STRING "Sanitizers to build with, as for -fsanitize=")

# Programs and libraries find their libraries relative to themselves, so that a built or installed tree
# can be moved, and builds in different folders give equal files.
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)
file(RELATIVE_PATH TRELAN_BIN_TO_LIB
    "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
set(TRELAN_RPATH_LIB "$ORIGIN")
set(TRELAN_RPATH_BIN "$ORIGIN/${TRELAN_BIN_TO_LIB}")

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual
    -Wold-style-cast -Wcast-align -Wformat=2 -Wundef -Wimplicit-fallthrough -Wmismatched-tags)
# Qt's logging macros have an empty variadic part, which clang warns of.
add_compile_options($<$<CXX_COMPILER_ID:Clang>:-Wno-gnu-zero-variadic-macro-arguments>)
if(TRELAN_WERROR)
    add_compile_options(-Werror)
endif()

# Log lines carry file and function in every build type. The path of a file begins at this folder, so
# that it tells nothing of the machine.
add_compile_definitions(QT_MESSAGELOGCONTEXT)
add_compile_options(
    "-ffile-prefix-map=${CMAKE_BINARY_DIR}/="
    "-ffile-prefix-map=${CMAKE_SOURCE_DIR}/=")

add_compile_definitions(QT_NO_CAST_FROM_ASCII QT_NO_CAST_TO_ASCII QT_NO_FOREACH
    QT_DEPRECATED_WARNINGS QT_DISABLE_DEPRECATED_BEFORE=0x050F00)

if(TRELAN_SANITIZE)
    add_compile_options(-fsanitize=${TRELAN_SANITIZE} -fno-omit-frame-pointer -g)
    if(NOT TRELAN_SANITIZE STREQUAL "thread")
        add_compile_options(-fno-sanitize-recover=all)
    endif()
    add_link_options(-fsanitize=${TRELAN_SANITIZE})
endif()

# clang links its sanitizers into programs only, so that shared libraries have undefined symbols.
if(NOT (TRELAN_SANITIZE AND CMAKE_CXX_COMPILER_ID MATCHES "Clang"))
    string(APPEND CMAKE_SHARED_LINKER_FLAGS " -Wl,--no-undefined")
endif()
