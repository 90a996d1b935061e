# One folder of the project, declared in one call:
#
#   corvelle_folder(operators
#       SOURCES    ripple.cpp            # the library corvelle_operators, alias corvelle::operators
#       TESTS      rippleTest.cpp        # the GoogleTest program operatorsTests, run by ctest
#       BENCHMARKS rippleBenchmark.cpp   # the Google Benchmark program operatorsBenchmarks
#       LINKS      corvelle::graph       # what the library builds on, passed on to its users
#       PCH        <vector>)             # optional: headers to precompile for library and tests
#
# Headers are included by their path from the repository's root: "operators/ripple.h". Sources are
# listed, never globbed, so that a build sees a new one at once. A folder of headers alone makes a
# library without code. Benchmarks are built by the target `benchmarks` (or <name>Benchmarks), and
# with everything else under CORVELLE_BENCHMARKS; the peers they measure against
# (CORVELLE_HAVE_EMBREE, CORVELLE_HAVE_NANOFLANN) are linked to them alone.

add_custom_target(tests)       # builds every test program
add_custom_target(benchmarks)  # builds every benchmark program
add_custom_target(fuzzers)     # builds every fuzz target, under CORVELLE_FUZZ

function(corvelle_folder name)
    cmake_parse_arguments(PARSE_ARGV 1 folder "" "" "SOURCES;TESTS;BENCHMARKS;LINKS;PCH")
    if(folder_UNPARSED_ARGUMENTS)
        message(FATAL_ERROR "corvelle_folder(${name}): what is '${folder_UNPARSED_ARGUMENTS}'? "
                            "Give SOURCES, TESTS, BENCHMARKS, LINKS or PCH")
    endif()

    set(library corvelle_${name})
    if(folder_SOURCES)
        add_library(${library} STATIC ${folder_SOURCES})
        set(visible PUBLIC)
        if(folder_PCH)
            target_precompile_headers(${library} PRIVATE ${folder_PCH})
        endif()
    else()
        add_library(${library} INTERFACE)
        set(visible INTERFACE)
    endif()
    add_library(corvelle::${name} ALIAS ${library})
    target_include_directories(${library} ${visible} "${PROJECT_SOURCE_DIR}")
    target_link_libraries(${library} ${visible} ${folder_LINKS} Threads::Threads)

    # Made-up hair and the like, for tests and benchmarks of every folder.
    set(testing $<TARGET_NAME_IF_EXISTS:corvelle::modelTesting>)
    if(folder_TESTS AND CORVELLE_TESTS AND NOT CORVELLE_FUZZ)
        set(program ${name}Tests)
        add_executable(${program} ${folder_TESTS})
        target_link_libraries(${program} PRIVATE corvelle::${name} ${testing}
                                                 GTest::gmock GTest::gtest_main)
        if(folder_PCH)
            target_precompile_headers(${program} PRIVATE ${folder_PCH})
        endif()
        gtest_discover_tests(${program} DISCOVERY_MODE PRE_TEST TEST_PREFIX "${name}/"
                             PROPERTIES TIMEOUT 600)
        add_dependencies(tests ${program})
    endif()

    if(folder_BENCHMARKS AND TARGET benchmark::benchmark_main)
        set(program ${name}Benchmarks)
        add_executable(${program} ${folder_BENCHMARKS})
        target_link_libraries(${program} PRIVATE corvelle::${name} ${testing} corvelle_peers
                                                 benchmark::benchmark_main)
        add_dependencies(benchmarks ${program})
        if(NOT CORVELLE_BENCHMARKS)
            set_target_properties(${program} PROPERTIES EXCLUDE_FROM_ALL ON)
        endif()
    endif()
endfunction()

# A libFuzzer program, made under CORVELLE_FUZZ only: corvelle_fuzzer(dispatchFuzz
# SOURCES dispatchFuzz.cpp LINKS corvelle::helper).
function(corvelle_fuzzer program)
    cmake_parse_arguments(PARSE_ARGV 1 fuzzer "" "" "SOURCES;LINKS")
    if(NOT CORVELLE_FUZZ)
        return()
    endif()
    add_executable(${program} ${fuzzer_SOURCES})
    target_link_libraries(${program} PRIVATE ${fuzzer_LINKS})
    target_link_options(${program} PRIVATE -fsanitize=fuzzer)
    add_dependencies(fuzzers ${program})
endfunction()
