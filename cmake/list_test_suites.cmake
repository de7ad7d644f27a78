# Writes the CTest tests of a GoogleTest program. Run by vesk_add_test_suites after each build of
# the program, with the variables PROGRAM, PREFIX, LABELS, TIMEOUT, and LIST, the file to write.
cmake_minimum_required(VERSION 3.25)

execute_process(COMMAND ${PROGRAM} --gtest_list_tests
    OUTPUT_VARIABLE output RESULT_VARIABLE result TIMEOUT 120)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "${PROGRAM} does not list its tests: ${result}\n${output}")
endif()

set(text "")
string(REPLACE ";" "\\;" output "${output}")
string(REPLACE "\n" ";" lines "${output}")
foreach(line IN LISTS lines)
    # "Suite." or "Instance/Suite.", possibly followed by a note on its type. Test cases are
    # indented.
    if(line MATCHES "^([^ ]+)\\.( |$)")
        set(suite ${CMAKE_MATCH_1})
        string(APPEND text
            "add_test([=[${PREFIX}${suite}]=] [=[${PROGRAM}]=] [=[--gtest_filter=${suite}.*]=])\n"
            "set_tests_properties([=[${PREFIX}${suite}]=] PROPERTIES"
            " LABELS \"${LABELS}\" TIMEOUT ${TIMEOUT})\n")
    endif()
endforeach()
if(text STREQUAL "")
    message(FATAL_ERROR "${PROGRAM} has no tests")
endif()
file(WRITE ${LIST} "${text}")
