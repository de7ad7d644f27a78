# Adds one CTest test for each suite of a GoogleTest program. One process for each test case would
# take longer than most test cases, in particular with sanitizers.

# vesk_add_test_suites(TARGET PREFIX prefix LABELS label... TIMEOUT seconds)
# The including file must have found GoogleTest. The suites are listed after the program is built.
function(vesk_add_test_suites target)
    cmake_parse_arguments(PARSE_ARGV 1 SUITES "" "PREFIX;TIMEOUT" "LABELS")
    set(list ${CMAKE_CURRENT_BINARY_DIR}/${target}_suites.cmake)
    add_custom_command(TARGET ${target} POST_BUILD
        COMMAND ${CMAKE_COMMAND} -D "PROGRAM=$<TARGET_FILE:${target}>" -D "PREFIX=${SUITES_PREFIX}"
            -D "LABELS=${SUITES_LABELS}" -D TIMEOUT=${SUITES_TIMEOUT} -D "LIST=${list}"
            -P ${PROJECT_SOURCE_DIR}/cmake/list_test_suites.cmake
        BYPRODUCTS ${list}
        VERBATIM)
    # If the program was not built, a failing test says so.
    set(include ${CMAKE_CURRENT_BINARY_DIR}/${target}_include.cmake)
    file(WRITE ${include}
        "if(EXISTS \"${list}\")\n    include(\"${list}\")\n"
        "else()\n    add_test(${target}_NOT_BUILT ${target}_NOT_BUILT)\nendif()\n")
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${include})
endfunction()
