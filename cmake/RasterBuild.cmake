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
    -ffp-contract=off -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Wcast-qual
    $<$<BOOL:${RASTER_WARNINGS_AS_ERRORS}>:-Werror>)
target_compile_definitions(RasterSettings INTERFACE
    $<$<BOOL:${RASTER_CHECK_LOCK_ORDER}>:RASTER_CHECK_LOCK_ORDER>
    $<$<BOOL:${RASTER_SCALAR_ONLY}>:HWY_COMPILE_ONLY_EMU128>)
if(RASTER_SANITIZE)
    target_compile_definitions(RasterSettings INTERFACE RASTER_SANITIZED)
    add_compile_options(-fsanitize=${RASTER_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${RASTER_SANITIZE})
endif()

# raster_add_module(<folder> <file>...): the sources of one folder below source/, compiled once for both libraries.
function(raster_add_module folder)
    add_library(Raster_${folder} OBJECT ${ARGN})
    target_include_directories(Raster_${folder} PUBLIC "${PROJECT_SOURCE_DIR}/source")
    target_compile_definitions(Raster_${folder} PRIVATE RASTER_BUILDING)
    target_link_libraries(Raster_${folder} PUBLIC $<BUILD_INTERFACE:RasterSettings>)
    set_property(GLOBAL APPEND PROPERTY RASTER_MODULES Raster_${folder})
endfunction()

# raster_add_test(<subsystem> <name>): tests/<subsystem>/<name>.cpp is the program <name>; each TEST is a ctest entry.
# Linked statically: this reaches hidden symbols and links only what is used.
function(raster_add_test subsystem name)
    add_executable(${name} "${PROJECT_SOURCE_DIR}/tests/${subsystem}/${name}.cpp")
    target_include_directories(${name} PRIVATE "${PROJECT_SOURCE_DIR}/tests")
    target_link_libraries(${name} PRIVATE RasterStatic RasterSettings GTest::gmock GTest::gtest_main ${ARGN})
    set_property(GLOBAL APPEND PROPERTY RASTER_TEST_PROGRAMS ${name})
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 120
        PROPERTIES LABELS "unit;${subsystem}" TIMEOUT ${RASTER_TEST_TIMEOUT})
endfunction()

# raster_add_benchmark(<subsystem> <name>): benchmarks/<subsystem>/<name>.cpp, run once by ctest so that it doesn't rot.
function(raster_add_benchmark subsystem name)
    add_executable(${name} "${PROJECT_SOURCE_DIR}/benchmarks/${subsystem}/${name}.cpp")
    target_include_directories(${name} PRIVATE "${PROJECT_SOURCE_DIR}/benchmarks")
    target_link_libraries(${name} PRIVATE RasterStatic RasterSettings benchmark::benchmark_main ${ARGN})
endfunction()
