# The helpers that make every target of the project.

set(ZR_WARNINGS -Wall -Wextra -Wconversion -Wshadow -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # g++ 12 reports overlaps inside its own std::string operator+ when it optimises (its bug 105651).
  list(APPEND ZR_WARNINGS -Wno-restrict)
  if(VELKORO_SANITIZE)
    # ... and with AddressSanitizer uninitialised members inside its own std::function (bug 105562).
    list(APPEND ZR_WARNINGS -Wno-maybe-uninitialized)
  endif()
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  list(APPEND ZR_WARNINGS -Wthread-safety -Wthread-safety-beta)
endif()

add_library(zr_options INTERFACE)
target_compile_options(zr_options INTERFACE ${ZR_WARNINGS})
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # Unique symbols would keep a host from unloading the shared library.
  target_compile_options(zr_options INTERFACE -fno-gnu-unique)
endif()
if(VELKORO_SANITIZE)
  add_compile_options(-fsanitize=${VELKORO_SANITIZE} -fno-omit-frame-pointer
                      -fno-sanitize-recover=all)
  if(VELKORO_SANITIZE MATCHES undefined)
    # Whether an object is of its class is asked through a pipe, which is not to be had where a test runs out
    # of descriptors: the answer would be that it is not.
    add_compile_options(-fno-sanitize=vptr)
  endif()
  add_link_options(-fsanitize=${VELKORO_SANITIZE})
endif()
if(VELKORO_FUZZ)
  # Every layer is instrumented; only the fuzz targets link libFuzzer's main.
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# zr_add_library(NAME SOURCES .. HEADERS .. LINKS .. PRIVATE_LINKS ..): one layer. Links are the layers below it.
# A layer without sources is an interface target, so that its links are in place from the start.
function(zr_add_library name)
  cmake_parse_arguments(arg "" "" "SOURCES;HEADERS;LINKS;PRIVATE_LINKS" ${ARGN})
  if(arg_SOURCES)
    add_library(${name} STATIC ${arg_SOURCES})
    set(scope PUBLIC)
    target_link_libraries(${name} PRIVATE $<BUILD_INTERFACE:zr_options> ${arg_PRIVATE_LINKS})
    set_property(GLOBAL APPEND PROPERTY ZR_LAYERS ${name})
  else()
    add_library(${name} INTERFACE)
    set(scope INTERFACE)
  endif()
  target_include_directories(${name} ${scope} ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/include)
  target_link_libraries(${name} ${scope} ${arg_LINKS})
  if(arg_HEADERS)
    target_sources(${name} ${scope} FILE_SET HEADERS BASE_DIRS ${PROJECT_SOURCE_DIR}/src
                   ${PROJECT_SOURCE_DIR}/include FILES ${arg_HEADERS})
  endif()
endfunction()

# What the public C++ interface defines is visible by default; the version script of the shared library
# makes everything else local. Calls within a file stay direct.
set(ZR_PUBLIC_OPTIONS -fvisibility=default -fno-semantic-interposition)

# zr_add_test(NAME SOURCES .. LINKS .. [LABEL unit] [TIMEOUT seconds]): one GoogleTest program; each of
# its tests is a CTest test of its own.
function(zr_add_test name)
  cmake_parse_arguments(arg "" "LABEL;TIMEOUT" "SOURCES;LINKS" ${ARGN})
  if(NOT arg_LABEL)
    set(arg_LABEL unit)
  endif()
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 120)
  endif()
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE zr_options ${arg_LINKS} GTest::gtest GTest::gtest_main)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST
                       PROPERTIES LABELS ${arg_LABEL} TIMEOUT ${arg_TIMEOUT})
endfunction()

# zr_add_fuzz(NAME LINKS ..): the fuzz target in NAME_fuzz.cpp, with its corpus in corpus/NAME and its
# dictionary in NAME.dict. With VELKORO_FUZZ it is a libFuzzer program; in every other build it
# replays the corpus as a CTest test.
function(zr_add_fuzz name)
  cmake_parse_arguments(arg "" "" "LINKS" ${ARGN})
  add_executable(${name}_fuzz ${name}_fuzz.cpp)
  target_link_libraries(${name}_fuzz PRIVATE zr_options ${arg_LINKS})
  target_include_directories(${name}_fuzz PRIVATE ${PROJECT_SOURCE_DIR})
  if(VELKORO_FUZZ)
    target_link_options(${name}_fuzz PRIVATE -fsanitize=fuzzer)
  else()
    target_sources(${name}_fuzz PRIVATE replay_main.cpp)
    add_test(NAME fuzz.${name} COMMAND ${name}_fuzz ${CMAKE_CURRENT_SOURCE_DIR}/corpus/${name})
    set_tests_properties(fuzz.${name} PROPERTIES LABELS unit TIMEOUT 120)
  endif()
endfunction()

# zr_add_bench(NAME SOURCES .. LINKS ..): one Google Benchmark program.
function(zr_add_bench name)
  cmake_parse_arguments(arg "" "" "SOURCES;LINKS" ${ARGN})
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE zr_options ${arg_LINKS} benchmark::benchmark
                        benchmark::benchmark_main)
endfunction()
