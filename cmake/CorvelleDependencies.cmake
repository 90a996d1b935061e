# What the project stands on. scripts/setup installs all of it; the prefix it uses for the two that
# are newer than the system's is searched as well.

if(CMAKE_CROSSCOMPILING)
    # The toolchain file says where; this machine's own are for other programs.
elseif(DEFINED ENV{CORVELLE_DEPS})
    list(APPEND CMAKE_PREFIX_PATH "$ENV{CORVELLE_DEPS}")
elseif(DEFINED ENV{HOME} AND EXISTS "$ENV{HOME}/.cache/corvelle/deps")
    list(APPEND CMAKE_PREFIX_PATH "$ENV{HOME}/.cache/corvelle/deps")
endif()

set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)
find_package(TBB REQUIRED CONFIG)                      # TBB::tbb: the parallel loop
find_package(nlohmann_json 3.11.3 REQUIRED CONFIG)     # nlohmann_json::nlohmann_json
find_package(Alembic 1.8 REQUIRED CONFIG)              # Alembic::Alembic: curve files

# stb_image.h and stb_image_write.h: pictures. Header-only; one source of ours holds the code.
find_path(CORVELLE_STB_INCLUDE stb_image.h PATH_SUFFIXES stb REQUIRED)
mark_as_advanced(CORVELLE_STB_INCLUDE)
add_library(corvelle_stb INTERFACE)
add_library(corvelle::stb ALIAS corvelle_stb)
target_include_directories(corvelle_stb SYSTEM INTERFACE "${CORVELLE_STB_INCLUDE}")

if(CORVELLE_TESTS)
    find_package(GTest REQUIRED CONFIG)                # GTest::gmock_main
    include(GoogleTest)
endif()

# Benchmarks and the peers they are measured against: left out where they are not installed.
find_package(benchmark QUIET CONFIG)                   # benchmark::benchmark_main
add_library(corvelle_peers INTERFACE)
find_package(embree 3 QUIET CONFIG)
if(TARGET embree)
    target_link_libraries(corvelle_peers INTERFACE embree)
    target_compile_definitions(corvelle_peers INTERFACE CORVELLE_HAVE_EMBREE=1)
endif()
find_path(CORVELLE_NANOFLANN_INCLUDE nanoflann.hpp)
mark_as_advanced(CORVELLE_NANOFLANN_INCLUDE)
if(CORVELLE_NANOFLANN_INCLUDE)
    target_include_directories(corvelle_peers SYSTEM INTERFACE "${CORVELLE_NANOFLANN_INCLUDE}")
    target_compile_definitions(corvelle_peers INTERFACE CORVELLE_HAVE_NANOFLANN=1)
endif()
