# The options that every target of this project is built with, gathered in one interface target.

add_library(vesk_compile_options INTERFACE)

target_compile_options(vesk_compile_options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion
    $<$<BOOL:${VESK_WARNINGS_AS_ERRORS}>:-Werror>
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)

if(VESK_HARDENING)
    # 3 sees more object sizes than 2; compilers without it would warn about the level.
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_GREATER_EQUAL 12)
        set(vesk_fortify_level 3)
    else()
        set(vesk_fortify_level 2)
    endif()
    set(CMAKE_POSITION_INDEPENDENT_CODE ON)
    target_compile_options(vesk_compile_options INTERFACE
        -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=${vesk_fortify_level}
        -fstack-protector-strong -fstack-clash-protection -fcf-protection
        -D_GLIBCXX_ASSERTIONS)
    target_link_options(vesk_compile_options INTERFACE -pie -Wl,-z,relro -Wl,-z,now)
endif()

if(VESK_SANITIZE)
    target_compile_options(vesk_compile_options INTERFACE
        -fsanitize=${VESK_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    target_link_options(vesk_compile_options INTERFACE -fsanitize=${VESK_SANITIZE})
    if(VESK_SANITIZE MATCHES "undefined")
        # This one check opens a pipe to find out whether memory may be read, and takes memory for
        # broken where no descriptor is left, which some tests see to.
        target_compile_options(vesk_compile_options INTERFACE -fno-sanitize=vptr)
    endif()
endif()
