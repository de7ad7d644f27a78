# One CTest test for each suite of a GoogleTest program. A process for each test case would cost more
# than most of the cases do, with sanitizers above all.

# vesk_add_test_suites(TARGET PREFIX prefix LABELS label... TIMEOUT seconds)
# Whoever includes this file has GoogleTest. The suites are listed when the program has been built.
function(vesk_add_test_suites target)
    cmake_parse_arguments(PARSE_ARGV 1 SUITES "" "PREFIX;TIMEOUT" "LABELS")
    set(list ${CMAKE_CURRENT_BINARY_DIR}/${target}_suites.cmake)
    add_custom_command(TARGET ${target} POST_BUILD
        COMMAND ${CMAKE_COMMAND} -D "PROGRAM=$<TARGET_FILE:${target}>" -D "PREFIX=${SUITES_PREFIX}"
            -D "LABELS=${SUITES_LABELS}" -D TIMEOUT=${SUITES_TIMEOUT} -D "LIST=${list}"
            -P ${PROJECT_SOURCE_DIR}/cmake/list_test_suites.cmake
        BYPRODUCTS ${list}
        VERBATIM)
    # A program that was not built is a test that fails.
    set(include ${CMAKE_CURRENT_BINARY_DIR}/${target}_include.cmake)
    file(WRITE ${include}
        "if(EXISTS \"${list}\")\n    include(\"${list}\")\n"
        "else()\n    add_test(${target}_NOT_BUILT ${target}_NOT_BUILT)\nendif()\n")
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${include})
endfunction()
