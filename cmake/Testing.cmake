# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

# What is under test is checked for undefined behaviour, tests and GoogleTest themselves aren't.
set(KS_UNCHECKED "")
if(KS_SANITIZE)
  set(KS_UNCHECKED -fno-sanitize=undefined)
endif()
if(KS_SANITIZE MATCHES thread)
  # Built from Debian's source package, so that the sanitizer knows what it does.
  set(BUILD_GMOCK ON)
  set(INSTALL_GTEST OFF)
  add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
  foreach(target gtest gtest_main gmock gmock_main)
    target_compile_options(${target} PRIVATE -w -O0 -g0 ${KS_UNCHECKED})
    set_target_properties(${target} PROPERTIES CXX_CLANG_TIDY "")
    get_target_property(includes ${target} INTERFACE_INCLUDE_DIRECTORIES)
    set_target_properties(${target} PROPERTIES INTERFACE_SYSTEM_INCLUDE_DIRECTORIES "${includes}")
  endforeach()
else()
  # Debian has it compiled for both widths, and the linker finds that of the width.
  foreach(target gtest gmock gmock_main)
    add_library(${target} INTERFACE IMPORTED GLOBAL)
    set_target_properties(${target} PROPERTIES IMPORTED_LIBNAME ${target})
  endforeach()
  target_link_libraries(gmock INTERFACE gtest)
  target_link_libraries(gmock_main INTERFACE gmock)
endif()

# A precompiled header for all test programs: GoogleTest's headers cost more to read than most tests to compile.
file(WRITE ${CMAKE_BINARY_DIR}/gtest_pch.cc "")
add_library(ks_gtest_pch STATIC EXCLUDE_FROM_ALL ${CMAKE_BINARY_DIR}/gtest_pch.cc)
target_link_libraries(ks_gtest_pch PUBLIC gmock gtest)
# Compiled as the programs that use it are: gcc refuses a precompiled header of another kind of position independence.
set_target_properties(ks_gtest_pch PROPERTIES POSITION_INDEPENDENT_CODE OFF)
# Test programs are compiled often and run briefly: without optimisation they take a third of the time to build.
set(KS_TEST_OPTIONS -O0 -g1 ${KS_UNCHECKED} $<$<BOOL:${KS_COVERAGE}>:-DKS_COVERAGE>)
target_compile_options(ks_gtest_pch PRIVATE -fPIE ${KS_TEST_OPTIONS})
target_precompile_headers(ks_gtest_pch PRIVATE <gmock/gmock.h> <gtest/gtest.h> <string> <vector>)

# ks_test(NAME SOURCES...): a test program and its entry in ctest.
function(ks_test name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE gmock_main)
  target_compile_options(${name} PRIVATE ${KS_TEST_OPTIONS})
  target_precompile_headers(${name} REUSE_FROM ks_gtest_pch)
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests/support)
  ks_in_lots(${name})
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES TIMEOUT 300)
endfunction()
