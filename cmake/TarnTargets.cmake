# One small function for each kind of target, so that a folder's CMakeLists.txt only names its sources.

# Warnings are errors; the sanitizers of the build preset go in here too.
add_library(tarn_flags INTERFACE)
target_compile_options(tarn_flags INTERFACE
  -Wall -Wextra -Wshadow -Wconversion -Wsign-conversion -Wpointer-arith -Wformat=2 -Wundef -Werror
  $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>)
if(TARN_SANITIZE)
  add_compile_options(-fsanitize=${TARN_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${TARN_SANITIZE})
  add_compile_options(-UNDEBUG) # assertions are part of what a sanitizer build looks for
endif()
if(TARN_BUILD_FUZZERS)
  add_compile_options(-fsanitize=fuzzer-no-link) # the fuzzers steer by the library's own branches
endif()
if(CMAKE_BUILD_TYPE STREQUAL "Release") # what ships tells nothing of the folder in which it was built
  add_compile_options("-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=")
endif()
if(WIN32)
  target_compile_definitions(tarn_flags INTERFACE WIN32_LEAN_AND_MEAN NOMINMAX UNICODE _UNICODE
    _WIN32_WINNT=0x0A00 __USE_MINGW_ANSI_STDIO=1)
  add_link_options(-static)
endif()

# What the thread sanitizer runs, by one name.
add_custom_target(threaded_tests)

# tarn_test(NAME SOURCES... [VIRTUAL] [THREADED])
#   VIRTUAL   links the settable clock and the seeded random source in place of the system's
#   THREADED  also runs under the thread sanitizer
function(tarn_test name)
  cmake_parse_arguments(arg "VIRTUAL;THREADED" "" "" ${ARGN})
  add_executable(${name} ${arg_UNPARSED_ARGUMENTS})
  if(arg_VIRTUAL)
    target_sources(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests/support/virtual_clock.cpp
      ${PROJECT_SOURCE_DIR}/tests/support/seeded_random.cpp)
  endif()
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests ${PROJECT_SOURCE_DIR}/core
    ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PRIVATE tarn_flags tarnglider_static gtest gtest_main)
  add_test(NAME ${name} COMMAND ${name} --gtest_brief=1)
  set_tests_properties(${name} PROPERTIES TIMEOUT 300)
  if(arg_THREADED)
    set_tests_properties(${name} PROPERTIES LABELS threaded)
    add_dependencies(threaded_tests ${name})
  endif()
endfunction()

# All benchmarks, by one name.
add_custom_target(benchmarks)

# tarn_bench(NAME SOURCES...): a Google Benchmark program; peers that are absent are left out by the caller.
function(tarn_bench name)
  add_executable(${name} ${ARGN})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/core ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PRIVATE tarn_flags tarnglider_static benchmark::benchmark)
  add_dependencies(benchmarks ${name})
endfunction()

# tarn_fuzzer(NAME SOURCES... [VIRTUAL]): one libFuzzer target; its seeds come from make_corpus. VIRTUAL as for a test.
function(tarn_fuzzer name)
  cmake_parse_arguments(arg "VIRTUAL" "" "" ${ARGN})
  add_executable(${name} ${arg_UNPARSED_ARGUMENTS})
  if(arg_VIRTUAL)
    target_sources(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests/support/virtual_clock.cpp
      ${PROJECT_SOURCE_DIR}/tests/support/seeded_random.cpp)
  endif()
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/core ${PROJECT_SOURCE_DIR}/tests)
  target_compile_options(${name} PRIVATE -fsanitize=fuzzer)
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  target_link_libraries(${name} PRIVATE tarn_flags tarnglider_static)
endfunction()
