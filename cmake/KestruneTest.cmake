find_package(GTest REQUIRED)
include(GoogleTest)

# kestrune_add_test(<name> SOURCES <file>... LIBS <target>... [LABELS <label>...] [TIMEOUT <seconds>])
# One executable of GoogleTest cases, registered with ctest as one test per executable: starting a process per
# case costs more than the cases.
function(kestrune_add_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBS;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE kestrune_options ${ARG_LIBS} GTest::gmock_main GTest::gtest)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  add_test(NAME ${name} COMMAND ${name})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  # The folder below tests/ is the label: unit, linux, browser.
  file(RELATIVE_PATH folder ${CMAKE_SOURCE_DIR}/tests ${CMAKE_CURRENT_SOURCE_DIR})
  string(REGEX REPLACE "/.*" "" kind ${folder})
  set_tests_properties(${name} PROPERTIES LABELS "${kind};${ARG_LABELS}" TIMEOUT ${ARG_TIMEOUT})
  if(kind STREQUAL "unit")
    add_dependencies(unit_tests ${name})
  endif()
endfunction()
