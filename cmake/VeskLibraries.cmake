# Adds the libraries of the units in dependencies.ini. Only that table says which units each library
# links.

set(VESK_DEPENDENCIES ${CMAKE_CURRENT_LIST_DIR}/dependencies.ini)
set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${VESK_DEPENDENCIES})

# Reads the table: sets VESK_FOLDER_<unit> and VESK_USES_<unit> for each unit.
file(STRINGS ${VESK_DEPENDENCIES} lines REGEX "^(\\[|folder = |uses = )")
foreach(line IN LISTS lines)
    if(line MATCHES "^\\[(.+)\\]$")
        set(unit ${CMAKE_MATCH_1})
    elseif(line MATCHES "^folder = (.+)$")
        set(VESK_FOLDER_${unit} ${CMAKE_MATCH_1})
    elseif(line MATCHES "^uses = (.+)$")
        string(REPLACE " " ";" VESK_USES_${unit} "${CMAKE_MATCH_1}")
    endif()
endforeach()

# vesk_link_unit(TARGET unit): links the libraries that the unit may use.
function(vesk_link_unit target unit)
    if(NOT VESK_FOLDER_${unit})
        message(FATAL_ERROR "${VESK_DEPENDENCIES} has no unit ${unit}")
    endif()
    list(TRANSFORM VESK_USES_${unit} PREPEND vesk_ OUTPUT_VARIABLE libraries)
    get_target_property(type ${target} TYPE)
    if(type STREQUAL "EXECUTABLE")
        target_link_libraries(${target} PRIVATE ${libraries} vesk_compile_options)
    else()
        target_link_libraries(${target} PUBLIC ${libraries} PRIVATE vesk_compile_options)
    endif()
endfunction()

# vesk_add_library(unit SOURCES file... [LINKS library...] [PRIVATE_LINKS library...]): adds
# vesk_<unit>, made of files of the unit's folder. LINKS are external libraries.
function(vesk_add_library unit)
    cmake_parse_arguments(PARSE_ARGV 1 UNIT "" "" "SOURCES;LINKS;PRIVATE_LINKS")
    list(TRANSFORM UNIT_SOURCES PREPEND ${PROJECT_SOURCE_DIR}/${VESK_FOLDER_${unit}}/)
    add_library(vesk_${unit} STATIC ${UNIT_SOURCES})
    string(REGEX MATCH "^[^/]+" top "${VESK_FOLDER_${unit}}")
    target_include_directories(vesk_${unit} PUBLIC ${PROJECT_SOURCE_DIR}/${top})
    vesk_link_unit(vesk_${unit} ${unit})
    target_link_libraries(vesk_${unit} PUBLIC ${UNIT_LINKS} PRIVATE ${UNIT_PRIVATE_LINKS})
endfunction()
