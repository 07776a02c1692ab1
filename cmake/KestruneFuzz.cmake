# libFuzzer targets; clang only. Everything of ours is built with coverage feedback. clang 14 cannot check the
# types of called functions where there are coroutines ("Cannot represent a difference across sections").
target_compile_options(kestrune_options INTERFACE -fsanitize=fuzzer-no-link -fno-sanitize=function)

add_custom_target(fuzzers COMMENT "All fuzz targets")

# kestrune_add_fuzzer(<name> SOURCES <file>... LIBS <target>...)
# An executable in <build>/fuzz/ that goes on from the seeds in corpus/<name>/ until it is stopped, and a short run
# of it, from the seeds alone, as a test labelled "fuzz". Found inputs go to <build>/fuzz/<name>-corpus.
function(kestrune_add_fuzzer name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE kestrune_options ${ARG_LIBS} kestrune_test_support)
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/fuzz)
  add_dependencies(fuzzers ${name})
  set(found ${CMAKE_BINARY_DIR}/fuzz/${name}-corpus)
  file(MAKE_DIRECTORY ${found})
  set(seeds ${CMAKE_CURRENT_SOURCE_DIR}/corpus/${name})
  add_test(NAME ${name} COMMAND ${name} -runs=100000 -max_total_time=30 -max_len=4096 ${found} ${seeds})
  set_tests_properties(${name} PROPERTIES LABELS fuzz TIMEOUT 120)
endfunction()
