# The flags all of the project is compiled with.
#
# Floating point is strict: a contracted multiply-add or a reordered sum gives other bits on
# another machine or compiler, and saved grooms depend on the bits. So no fast-math, no -march:
# wider instruction sets are chosen at run time, where their bits are equal.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE Release CACHE STRING "Build type" FORCE)
endif()

if(WIN32)
    add_compile_definitions(NOMINMAX WIN32_LEAN_AND_MEAN)
endif()
if(MSVC)
    add_compile_options(/W4 /WX /fp:precise /utf-8 /permissive- /Zc:__cplusplus /EHsc /bigobj
                        /wd4100 /wd4244 /wd4267 /wd4305)
    add_compile_definitions(_CRT_SECURE_NO_WARNINGS)
    string(REPLACE "/O2" "/O2 /Ob3" CMAKE_CXX_FLAGS_RELEASE "${CMAKE_CXX_FLAGS_RELEASE}")
    if(CORVELLE_SANITIZE MATCHES "address")
        add_compile_options(/fsanitize=address)
    endif()
else()
    set(CMAKE_CXX_FLAGS_RELEASE "-O3 -DNDEBUG")
    set(CMAKE_CXX_FLAGS_RELWITHDEBINFO "-O1 -g")  # what the sanitizers use; keeps assertions
    # errno and floating-point traps are read by nobody; no result changes with these two.
    add_compile_options(-ffp-contract=off -fno-math-errno -fno-trapping-math
                        -Wall -Wextra -Wpedantic -Wshadow -Werror
                        # designated initializers leave the rest at their defaults, on purpose
                        -Wno-missing-field-initializers)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        # GCC 12 sees overlaps in std::string's operator+ that are not there (its PR 105651).
        add_compile_options(-Wno-restrict)
        if(WIN32)
            # Windows keeps the stack aligned to 16 bytes, and GCC takes it for aligned to 32 where
            # it spills AVX registers (its PR 54412): the assembler makes those moves unaligned ones.
            add_compile_options(-Wa,-muse-unaligned-vector-move)
        endif()
        if(CORVELLE_SANITIZE)
            add_compile_options(-Wno-maybe-uninitialized -Wno-stringop-overflow)
        endif()
    endif()
    if(CORVELLE_SANITIZE)
        add_compile_options(-fsanitize=${CORVELLE_SANITIZE} -fno-sanitize-recover=all
                            -fno-omit-frame-pointer)
        add_link_options(-fsanitize=${CORVELLE_SANITIZE})
    endif()
    if(CORVELLE_FUZZ)
        if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
            message(FATAL_ERROR "CORVELLE_FUZZ: libFuzzer comes with clang, use the preset 'fuzz'")
        endif()
        add_compile_options(-fsanitize=fuzzer-no-link)
    endif()

    # A faster linker where there is one.
    find_program(CORVELLE_MOLD mold)
    find_program(CORVELLE_LLD ld.lld)
    mark_as_advanced(CORVELLE_MOLD CORVELLE_LLD)
    if(WIN32)
        # MinGW has one of its own alone.
    elseif(CORVELLE_MOLD)
        add_link_options(-fuse-ld=mold)
    elseif(CORVELLE_LLD)
        add_link_options(-fuse-ld=lld)
    endif()
endif()

if(CORVELLE_TSAN_STD_THREADS)
    add_compile_definitions(CORVELLE_TSAN_STD_THREADS)
endif()

find_program(CORVELLE_CCACHE ccache)
mark_as_advanced(CORVELLE_CCACHE)
if(CORVELLE_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER AND NOT MSVC)
    # Work trees share their cache: paths below the source folder count relative to it.
    set(CMAKE_CXX_COMPILER_LAUNCHER
        "${CMAKE_COMMAND}" -E env "CCACHE_BASEDIR=${PROJECT_SOURCE_DIR}" CCACHE_NOHASHDIR=1
        "CCACHE_SLOPPINESS=pch_defines,time_macros" "${CORVELLE_CCACHE}")
endif()

set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/bin")
