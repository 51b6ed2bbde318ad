# Warnings, sanitizers and the compiler cache, kept in the interface target tavrin_compiler that every target
# of the project links. Nothing of it reaches whoever uses the installed library.

find_program(TAVRIN_CCACHE ccache)
if(TAVRIN_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    # Paths count relative to the sources, so that presets and clones with the same flags share what they built.
    # Without that much sloppiness nothing is cached that uses a precompiled header.
    set(CMAKE_CXX_COMPILER_LAUNCHER
        env "CCACHE_BASEDIR=${PROJECT_SOURCE_DIR}" CCACHE_NOHASHDIR=true
        CCACHE_SLOPPINESS=pch_defines,time_macros "${TAVRIN_CCACHE}")
endif()

add_library(tavrin_compiler INTERFACE)
target_compile_options(tavrin_compiler INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow
    $<$<BOOL:${TAVRIN_WERROR}>:-Werror>
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety;-Werror=thread-safety>
    # A time stamp in clang's precompiled header would keep ccache from ever finding what depends on it.
    "$<$<CXX_COMPILER_ID:Clang>:SHELL:-Xclang -fno-pch-timestamp>")

set(tavrin_sanitizers ${TAVRIN_SANITIZE})
if(TAVRIN_FUZZ)
    if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
        message(FATAL_ERROR "TAVRIN_FUZZ needs clang: libFuzzer is a part of it.")
    endif()
    list(APPEND tavrin_sanitizers fuzzer-no-link address undefined)
    list(REMOVE_DUPLICATES tavrin_sanitizers)
endif()

if(tavrin_sanitizers)
    list(JOIN tavrin_sanitizers "," tavrin_sanitizer_list)
    set(tavrin_sanitizer_flags "-fsanitize=${tavrin_sanitizer_list}" -fno-omit-frame-pointer)
    if("undefined" IN_LIST tavrin_sanitizers)
        # Else a test that trips over undefined behaviour would print a line and pass.
        list(APPEND tavrin_sanitizer_flags -fno-sanitize-recover=all)
    endif()
    target_compile_options(tavrin_compiler INTERFACE ${tavrin_sanitizer_flags})
    target_link_options(tavrin_compiler INTERFACE ${tavrin_sanitizer_flags})
endif()
