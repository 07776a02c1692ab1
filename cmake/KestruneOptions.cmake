# Compile options that every target of ours shares, and the one way to declare a library.

add_library(kestrune_options INTERFACE)
target_include_directories(kestrune_options INTERFACE ${CMAKE_SOURCE_DIR}/src)
target_compile_options(kestrune_options INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror -fstack-protector-strong)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # At -O3 g++ 12 sees overlaps in std::string concatenation that are not there (GCC bug 105651).
  target_compile_options(kestrune_options INTERFACE -Wno-restrict)
endif()
target_link_libraries(kestrune_options INTERFACE Threads::Threads)
if(KESTRUNE_SANITIZE)
  target_compile_options(kestrune_options INTERFACE
    -fsanitize=${KESTRUNE_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(kestrune_options INTERFACE -fsanitize=${KESTRUNE_SANITIZE})
  # g++ 12 reports false positives in sanitized standard library code.
  target_compile_options(kestrune_options INTERFACE
    $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized> $<$<CXX_COMPILER_ID:GNU>:-Wno-tsan>)
else()
  # It needs optimization, and the sanitizers intercept the same functions.
  target_compile_definitions(kestrune_options INTERFACE $<$<NOT:$<CONFIG:Debug>>:_FORTIFY_SOURCE=2>)
endif()

# kestrune_library(<name> SOURCES <file>... [LIBS <target>...] [PRIVATE_LIBS <target>...])
# One static library per folder. LIBS are the layers it may reach; the layer check (cmake/CheckLayers.cmake)
# holds the includes to the same list.
function(kestrune_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS;PRIVATE_LIBS" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_link_libraries(${name} PUBLIC kestrune_options ${ARG_LIBS} PRIVATE ${ARG_PRIVATE_LIBS})
  # Every header compiles alone: the target all_verify_interface_header_sets holds them to it.
  file(GLOB headers CONFIGURE_DEPENDS *.h)
  string(REGEX REPLACE "^(${CMAKE_SOURCE_DIR}/[a-z]+).*" "\\1" base ${CMAKE_CURRENT_SOURCE_DIR})
  target_sources(${name} PUBLIC FILE_SET HEADERS BASE_DIRS ${base} FILES ${headers})
  set_target_properties(${name} PROPERTIES VERIFY_INTERFACE_HEADER_SETS ON)
endfunction()
