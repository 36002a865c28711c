# add_trelan_test(<name> SOURCES <file>... [LIBRARIES <target>...] [LABELS <label>...]
#                 [TIMEOUT <seconds>] [PROMPT <label>...])
#
# A QtTest program that is a CTest test. It runs in the C locale, since texts are compared; and a
# connect that Qt only warns about is a failure, since string connects compare text and a typing
# error there would otherwise be a test that waits for nothing. With PROMPT it runs a second time, as
# <name>_prompt and with these labels, for channels without pauses; see transport.h.
function(add_trelan_test name)
    cmake_parse_arguments(PARSE_ARGV 1 ARG "" "TIMEOUT" "SOURCES;LIBRARIES;LABELS;PROMPT")
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 60)
    endif()
    # One run of moc costs less than a target of AUTOMOC, which the libraries have.
    list(GET ARG_SOURCES 0 main)
    get_filename_component(moc "${main}" NAME_WE)
    set(moc "${CMAKE_CURRENT_BINARY_DIR}/${moc}.moc")
    qt5_generate_moc("${main}" "${moc}")
    add_executable(${name} ${ARG_SOURCES} "${moc}")
    if(TARGET TrelanQtSync) # before Qt, whose functions it stands for
        target_link_libraries(${name} PRIVATE TrelanQtSync)
    endif()
    target_link_libraries(${name} PRIVATE Qt5::Test Qt5::Network ${ARG_LIBRARIES})
    target_include_directories(${name} PRIVATE "${PROJECT_SOURCE_DIR}/tests/support"
        "${CMAKE_CURRENT_BINARY_DIR}")
    # Tables of texts read better without a macro around every one.
    target_compile_options(${name} PRIVATE -UQT_NO_CAST_FROM_ASCII)
    trelan_use_precompiled(TrelanTestPrecompiled ${name})
    add_test(NAME ${name} COMMAND ${name})
    set(tests ${name})
    if(ARG_PROMPT)
        add_test(NAME ${name}_prompt COMMAND ${name})
        list(APPEND tests ${name}_prompt)
    endif()
    set_tests_properties(${tests} PROPERTIES
        TIMEOUT ${ARG_TIMEOUT}
        LABELS "${ARG_LABELS}"
        ENVIRONMENT "LC_ALL=C.UTF-8;LANGUAGE=;QT_LOGGING_RULES="
        FAIL_REGULAR_EXPRESSION "QObject::connect:;QObject: Cannot create children;QObject::startTimer:;QObject::~QObject")
    if(ARG_PROMPT)
        set_property(TEST ${name}_prompt APPEND PROPERTY
            ENVIRONMENT "TRELAN_TEST_TRANSPORT=prompt")
        set_property(TEST ${name}_prompt PROPERTY LABELS "${ARG_PROMPT}")
    endif()
endfunction()
