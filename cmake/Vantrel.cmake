# SPDX-License-Identifier: Apache-2.0
# What every room of the house is built with, and the three functions its CMakeLists.txt files use.

find_package(Threads REQUIRED)
find_package(fmt REQUIRED)
find_package(spdlog REQUIRED)
find_package(nlohmann_json REQUIRED)
find_package(CLI11 REQUIRED)
find_package(Boost 1.81 REQUIRED)
find_path(JUDY_INCLUDE_DIR Judy.h REQUIRED)
find_library(JUDY_LIBRARY Judy REQUIRED)
find_path(XXHASH_INCLUDE_DIR xxhash.h REQUIRED)
find_package(PkgConfig REQUIRED)

# vantrel_optional(NAME): looks through pkg-config for a package without which something is left out. Sets
# NAME_FOUND, and makes PkgConfig::NAME. A packager can name those to do without, whether installed or not.
set(VANTREL_WITHOUT "" CACHE STRING
  "Optional packages to do without: benchmark, hiredis, libbpf, libmnl, lmdb, lttng-ust")
macro(vantrel_optional name)
  if("${name}" IN_LIST VANTREL_WITHOUT)
    set(${name}_FOUND FALSE)
  else()
    pkg_check_modules(${name} QUIET IMPORTED_TARGET ${name})
  endif()
endmacro()

add_library(vantrel_flags INTERFACE)
target_compile_options(vantrel_flags INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor
  -Wold-style-cast -Woverloaded-virtual -Wconversion -Wno-sign-conversion -Werror)
target_include_directories(vantrel_flags INTERFACE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/platform)
# Libraries of others are system headers: their warnings are not ours.
target_include_directories(vantrel_flags SYSTEM INTERFACE ${JUDY_INCLUDE_DIR} ${XXHASH_INCLUDE_DIR})
target_link_libraries(vantrel_flags INTERFACE Threads::Threads Boost::headers fmt::fmt spdlog::spdlog
  nlohmann_json::nlohmann_json ${JUDY_LIBRARY})
target_compile_definitions(vantrel_flags INTERFACE SPDLOG_FMT_EXTERNAL)
# Paths in messages are those of the repository, wherever it was built.
target_compile_options(vantrel_flags INTERFACE -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)

if(VANTREL_SANITIZE)
  target_compile_options(vantrel_flags INTERFACE -fsanitize=${VANTREL_SANITIZE} -fno-omit-frame-pointer
    -fno-sanitize-recover=all)
  target_link_options(vantrel_flags INTERFACE -fsanitize=${VANTREL_SANITIZE})
  # g++ 12 sees uninitialised members, of std::regex for one, once a sanitizer is in the way.
  target_compile_options(vantrel_flags INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  # g++ defines these itself; tests ask for them.
  if(VANTREL_SANITIZE MATCHES address)
    target_compile_definitions(vantrel_flags INTERFACE $<$<CXX_COMPILER_ID:Clang>:__SANITIZE_ADDRESS__>)
  endif()
  if(VANTREL_SANITIZE MATCHES thread)
    target_compile_definitions(vantrel_flags INTERFACE $<$<CXX_COMPILER_ID:Clang>:__SANITIZE_THREAD__>)
  endif()
  # The thread sanitizer does not see fences, and g++ says so wherever there is one.
  if(VANTREL_SANITIZE MATCHES thread)
    target_compile_options(vantrel_flags INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-tsan>)
  endif()
endif()
if(VANTREL_COVERAGE)
  target_compile_options(vantrel_flags INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(vantrel_flags INTERFACE --coverage)
endif()

# vantrel_room(NAME SOURCES...): an object library of one folder. Its objects go into libvantrel.so and,
# so that hidden symbols stay testable, straight into the tests.
set_property(GLOBAL PROPERTY VANTREL_LIBRARY_ROOMS "")
function(vantrel_room name)
  add_library(${name} OBJECT ${ARGN})
  target_link_libraries(${name} PUBLIC vantrel_flags)
  target_compile_definitions(${name} PRIVATE VANTREL_BUILDING)
  set_property(GLOBAL APPEND PROPERTY VANTREL_LIBRARY_ROOMS ${name})
endfunction()

# vantrel_library_rooms(VAR): the object libraries that make up libvantrel.so.
function(vantrel_library_rooms var)
  get_property(rooms GLOBAL PROPERTY VANTREL_LIBRARY_ROOMS)
  set(${var} ${rooms} PARENT_SCOPE)
endfunction()

# vantrel_test(NAME SOURCES... [LIBS ...] [ROOMS ...] [TIMEOUT s] [LABELS ...]): a GoogleTest program, one
# ctest entry. With ROOMS, of the library it has these rooms and no others.
# Label tsan: has threads or processes that race, and runs under the thread sanitizer too. Label no-sanitize:
# too slow under the address sanitizer, or measures.
add_custom_target(tsan_tests)
function(vantrel_test name)
  cmake_parse_arguments(T "" "TIMEOUT" "LIBS;ROOMS;LABELS" ${ARGN})
  find_package(GTest REQUIRED)
  set(library vantrel_objects)
  if(T_ROOMS)
    set(library ${T_ROOMS})
  endif()
  add_executable(${name} ${T_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE ${library} ${T_LIBS} GTest::gmock GTest::gtest_main)
  target_compile_definitions(${name} PRIVATE VANTREL_SOURCE_DIR="${PROJECT_SOURCE_DIR}"
    VANTREL_BIN_DIR="${CMAKE_RUNTIME_OUTPUT_DIRECTORY}")
  if(VANTREL_COVERAGE)
    target_sources(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests/support/gcov_at_abort.cpp)
  endif()
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  add_test(NAME ${name} COMMAND ${name})
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 300)
  endif()
  set_tests_properties(${name} PROPERTIES TIMEOUT ${T_TIMEOUT})
  if(T_LABELS)
    set_tests_properties(${name} PROPERTIES LABELS "${T_LABELS}")
  endif()
  if("tsan" IN_LIST T_LABELS)
    add_dependencies(tsan_tests ${name})
  endif()
endfunction()
