# Warnings are errors. One interface target carries them, so that every target of ours has the same set.
add_library(kv_flags INTERFACE)
target_compile_options(kv_flags INTERFACE
  -Wall -Wextra -Wpedantic -Werror -Wshadow -Wconversion -Wsign-conversion -Wnon-virtual-dtor -Wold-style-cast
  -Wimplicit-fallthrough -Werror=return-type
  # GCC 12 sees an overlap in every short literal assigned to a string, once it has inlined the library.
  $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>)
if(WIN32)
  target_compile_definitions(kv_flags INTERFACE UNICODE _UNICODE NOMINMAX WIN32_LEAN_AND_MEAN _WIN32_WINNT=0x0601)
endif()
# What the build writes is included like what stands in the tree.
configure_file(${CMAKE_SOURCE_DIR}/foundation/version.h.in ${CMAKE_BINARY_DIR}/generated/foundation/version.h @ONLY)
target_include_directories(kv_flags INTERFACE ${CMAKE_SOURCE_DIR} ${CMAKE_BINARY_DIR}/generated)

# kv_library(NAME SOURCES... DEPENDS...): a folder's target, included from the root of the tree.
function(kv_library name)
  cmake_parse_arguments(arg "" "" "SOURCES;DEPENDS" ${ARGN})
  add_library(${name} STATIC ${arg_SOURCES})
  target_link_libraries(${name} PUBLIC kv_flags ${arg_DEPENDS})
endfunction()

# kv_test(NAME SOURCES... DEPENDS...): one GoogleTest program, its cases registered with CTest.
function(kv_test name)
  cmake_parse_arguments(arg "" "" "SOURCES;DEPENDS" ${ARGN})
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE kv_flags ${arg_DEPENDS} GTest::gmock GTest::gtest_main)
  # To optimise a test for the sanitizers takes longer than to run it.
  target_compile_options(${name} PRIVATE $<$<CONFIG:Debug>:-O0>)
  if(CMAKE_CROSSCOMPILING)
    # Listing the cases would need the emulator while building; a program is one test.
    add_test(NAME ${name} COMMAND ${name} --gtest_brief=1)
    set_tests_properties(${name} PROPERTIES TIMEOUT 300)
  else()
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
  endif()
endfunction()
