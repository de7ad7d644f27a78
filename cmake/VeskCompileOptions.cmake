# The compile and link options of all targets, in one interface target.

include(CheckCXXCompilerFlag)

add_library(vesk_compile_options INTERFACE)

# For test programs, which are compiled often and run once: they are built without optimisation, without
# hardening and with only the debug information that a stack trace needs. The libraries that they test
# are optimised and hardened. Set the variable of the same name in a folder of test programs.
define_property(TARGET PROPERTY VESK_QUICK_BUILD INITIALIZE_FROM_VARIABLE VESK_QUICK_BUILD
    BRIEF_DOCS "Whether the target is compiled without optimisation")
set(vesk_quick $<BOOL:$<TARGET_PROPERTY:VESK_QUICK_BUILD>>)

# In quickly built code these two checks of each pointer would cost a quarter of the compilation. The
# address sanitizer detects null pointers too.
set(vesk_fewer_checks)
if(VESK_SANITIZE MATCHES "undefined")
    set(vesk_fewer_checks -fno-sanitize=null,alignment)
endif()

# For a file whose compilation costs far more than its execution: a reader of command lines, which
# instantiates a large library of headers.
function(vesk_compile_quickly file)
    set_source_files_properties(${file} PROPERTIES
        COMPILE_OPTIONS "-O0;-U_FORTIFY_SOURCE;${vesk_fewer_checks}")
endfunction()

target_compile_options(vesk_compile_options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion
    "$<${vesk_quick}:-O0;-g1>"
    $<$<BOOL:${VESK_WARNINGS_AS_ERRORS}>:-Werror>
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)

if(VESK_HARDENING)
    # Level 3 checks more object sizes than level 2. Compilers that lack it warn.
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_GREATER_EQUAL 12)
        set(vesk_fortify_level 3)
    else()
        set(vesk_fortify_level 2)
    endif()
    set(CMAKE_POSITION_INDEPENDENT_CODE ON)
    # Some of these options exist on some architectures only: -fcf-protection only on x86.
    set(vesk_protection)
    foreach(flag IN ITEMS -fstack-protector-strong -fstack-clash-protection -fcf-protection)
        string(MAKE_C_IDENTIFIER "VESK_TAKES${flag}" takes)
        check_cxx_compiler_flag(${flag} ${takes})
        if(${takes})
            list(APPEND vesk_protection ${flag})
        endif()
    endforeach()
    target_compile_options(vesk_compile_options INTERFACE
        -U_FORTIFY_SOURCE
        "$<$<NOT:${vesk_quick}>:-D_FORTIFY_SOURCE=${vesk_fortify_level};${vesk_protection}>"
        -D_GLIBCXX_ASSERTIONS)
    target_link_options(vesk_compile_options INTERFACE -pie -Wl,-z,relro -Wl,-z,now)
endif()

if(VESK_SANITIZE)
    target_compile_options(vesk_compile_options INTERFACE
        -fsanitize=${VESK_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    target_link_options(vesk_compile_options INTERFACE -fsanitize=${VESK_SANITIZE})
    if(VESK_SANITIZE MATCHES "undefined")
        # This check opens a pipe to test whether memory is readable. If no descriptor is left, as
        # in some tests, it reports valid memory as invalid.
        target_compile_options(vesk_compile_options INTERFACE -fno-sanitize=vptr)
        target_compile_options(vesk_compile_options INTERFACE "$<${vesk_quick}:${vesk_fewer_checks}>")
    endif()
endif()
