# Compiler settings shared by every target of the project, and the functions that declare targets.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

find_program(RASTER_CCACHE ccache)
if(RASTER_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    set(CMAKE_CXX_COMPILER_LAUNCHER "${RASTER_CCACHE}")
endif()

add_library(RasterSettings INTERFACE)
# Contraction to fused multiply-add would make results depend on the vector level; it is off everywhere.
target_compile_options(RasterSettings INTERFACE
    -ffp-contract=off -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Wcast-qual)
# Highway generates its scalar target alone when HWY_COMPILE_ONLY_SCALAR is set; dispatch then is an ordinary call.
target_compile_definitions(RasterSettings INTERFACE
    $<$<BOOL:${RASTER_CHECK_LOCK_ORDER}>:RASTER_CHECK_LOCK_ORDER>
    $<$<BOOL:${RASTER_SCALAR_ONLY}>:HWY_COMPILE_ONLY_SCALAR>)
if(RASTER_FUZZ)
    if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
        message(FATAL_ERROR "RASTER_FUZZ needs clang: libFuzzer is a part of it")
    endif()
    add_compile_options(-fsanitize=fuzzer-no-link)
    add_link_options(-fsanitize=fuzzer-no-link)
endif()
if(RASTER_SANITIZE)
    target_compile_definitions(RasterSettings INTERFACE RASTER_SANITIZED)
    add_compile_options(-fsanitize=${RASTER_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${RASTER_SANITIZE})
    # Instrumented code misleads GCC's flow analysis, and the thread sanitizer warns about every fence in oneTBB's
    # headers. The plain builds hold warnings to be errors; these ones look for other things.
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND RASTER_SANITIZE MATCHES "thread")
        add_compile_options(-Wno-tsan)
    endif()
elseif(RASTER_WARNINGS_AS_ERRORS)
    target_compile_options(RasterSettings INTERFACE -Werror)
endif()

# raster_add_module(<folder> <file>...): the sources of one folder below source/, compiled once for both libraries.
function(raster_add_module folder)
    add_library(Raster_${folder} OBJECT ${ARGN})
    target_include_directories(Raster_${folder} PUBLIC "${PROJECT_SOURCE_DIR}/source")
    target_compile_definitions(Raster_${folder} PRIVATE RASTER_BUILDING)
    target_link_libraries(Raster_${folder} PUBLIC $<BUILD_INTERFACE:RasterSettings>)
    set_property(GLOBAL APPEND PROPERTY RASTER_MODULES Raster_${folder})
endfunction()

# Every test of these subsystems is about threads too.
set(RASTER_THREADED_SUBSYSTEMS storage pixel/transfer transfer files)

# raster_add_test(<subsystem> <name> [<library>...]): tests/<subsystem>/<name>.cpp is the program <name>; each TEST in it
# is a ctest entry. Tests that start threads are worth the thread sanitizer and get the label "threads".
# Linked statically: this reaches hidden symbols and links only what is used.
function(raster_add_test subsystem name)
    set(source "${PROJECT_SOURCE_DIR}/tests/${subsystem}/${name}.cpp")
    set(labels unit ${subsystem})
    file(STRINGS "${source}" threads REGEX "#include (<(thread|future)>|\"kernel/Dispatch\\.h\")")
    set_property(GLOBAL APPEND PROPERTY RASTER_TEST_PROGRAMS ${name})
    if(threads OR subsystem IN_LIST RASTER_THREADED_SUBSYSTEMS)
        list(APPEND labels threads)
        set_property(GLOBAL APPEND PROPERTY RASTER_THREAD_TEST_PROGRAMS ${name})
    endif()
    add_executable(${name} "${source}")
    target_include_directories(${name} PRIVATE "${PROJECT_SOURCE_DIR}/tests")
    target_link_libraries(${name} PRIVATE
        RasterStatic RasterSettings GTest::gmock GTest::gtest_main rapidcheck ${ARGN})
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 120 PROPERTIES TIMEOUT ${RASTER_TEST_TIMEOUT})
    # gtest_discover_tests takes no list as a property; its list of tests is there when ctest reads this file.
    set(labelsFile "${CMAKE_CURRENT_BINARY_DIR}/${name}Labels.cmake")
    file(CONFIGURE OUTPUT "${labelsFile}" @ONLY CONTENT [[
foreach(test IN LISTS @name@_TESTS)
    set_tests_properties("${test}" PROPERTIES LABELS "@labels@")
endforeach()
]])
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${labelsFile}")
endfunction()

# raster_add_benchmark(<subsystem> <name> [<library>...]): benchmarks/<subsystem>/<name>.cpp is the program <name>. ctest
# runs it once, each measurement as short as can be, so that it doesn't rot; figures are taken by hand.
# A benchmark that needs much memory takes less where RASTER_BENCHMARK_SMOKE is set.
function(raster_add_benchmark subsystem name)
    add_executable(${name} "${PROJECT_SOURCE_DIR}/benchmarks/${subsystem}/${name}.cpp")
    target_include_directories(${name} PRIVATE "${PROJECT_SOURCE_DIR}/benchmarks")
    target_link_libraries(${name} PRIVATE RasterStatic RasterSettings benchmark::benchmark_main ${ARGN})
    add_test(NAME Benchmark.${name} COMMAND ${name} --benchmark_min_time=0.000001)
    set_tests_properties(Benchmark.${name} PROPERTIES LABELS "benchmark;${subsystem}" TIMEOUT ${RASTER_TEST_TIMEOUT}
        ENVIRONMENT RASTER_BENCHMARK_SMOKE=1)
endfunction()

# raster_add_fuzz_seeds(<subsystem> <name> [<library>...]): fuzz/<subsystem>/<name>.cpp is a program that writes seeds, one a
# file, into the folder that it is given. They are made by the build and lie in RASTER_FUZZ_SEEDS/<name>.
set(RASTER_FUZZ_SEEDS "${PROJECT_BINARY_DIR}/fuzz/seeds")
function(raster_add_fuzz_seeds subsystem name)
    add_executable(${name} "${PROJECT_SOURCE_DIR}/fuzz/${subsystem}/${name}.cpp")
    target_include_directories(${name} PRIVATE "${PROJECT_SOURCE_DIR}/fuzz" "${PROJECT_SOURCE_DIR}/tests")
    target_link_libraries(${name} PRIVATE RasterStatic RasterSettings ${ARGN})
    set(stamp "${CMAKE_CURRENT_BINARY_DIR}/${name}.stamp")
    add_custom_command(OUTPUT "${stamp}"
        COMMAND "${CMAKE_COMMAND}" -E rm -rf "${RASTER_FUZZ_SEEDS}/${name}"
        COMMAND "${CMAKE_COMMAND}" -E make_directory "${RASTER_FUZZ_SEEDS}/${name}"
        COMMAND ${name} "${RASTER_FUZZ_SEEDS}/${name}"
        COMMAND "${CMAKE_COMMAND}" -E touch "${stamp}"
        COMMENT "Making the seeds of ${name}" VERBATIM)
    add_custom_target(${name}Made DEPENDS "${stamp}")
endfunction()

# raster_add_fuzz(<subsystem> <name> SEEDS <seeds>... [LIBRARIES <library>...]): fuzz/<subsystem>/<name>.cpp defines
# LLVMFuzzerTestOneInput. With RASTER_FUZZ it is a libFuzzer program; otherwise ctest replays the seeds through it, whole,
# cut and damaged.
function(raster_add_fuzz subsystem name)
    cmake_parse_arguments(PARSE_ARGV 2 fuzz "" "" "SEEDS;LIBRARIES")
    add_executable(${name} "${PROJECT_SOURCE_DIR}/fuzz/${subsystem}/${name}.cpp")
    target_include_directories(${name} PRIVATE "${PROJECT_SOURCE_DIR}/fuzz" "${PROJECT_SOURCE_DIR}/tests")
    target_link_libraries(${name} PRIVATE RasterStatic RasterSettings ${fuzz_LIBRARIES})
    set(folders "")
    foreach(seeds IN LISTS fuzz_SEEDS)
        add_dependencies(${name} ${seeds}Made)
        list(APPEND folders "${RASTER_FUZZ_SEEDS}/${seeds}")
    endforeach()
    if(RASTER_FUZZ)
        target_link_options(${name} PRIVATE -fsanitize=fuzzer)
        return()
    endif()
    target_sources(${name} PRIVATE "${PROJECT_SOURCE_DIR}/fuzz/Replay.cpp")
    add_test(NAME Fuzz.${name} COMMAND ${name} ${folders})
    set_tests_properties(Fuzz.${name} PROPERTIES LABELS "fuzz;${subsystem}" TIMEOUT ${RASTER_TEST_TIMEOUT})
endfunction()
