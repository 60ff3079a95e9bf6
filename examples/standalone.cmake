# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

# Builds the examples against an installed libks:
#   cmake -S . -B /tmp/examples && cmake --build /tmp/examples && ks-session -- /tmp/examples/first_program
cmake_minimum_required(VERSION 3.16)
project(ks_examples LANGUAGES C CXX)
set(CMAKE_CXX_STANDARD 20)
find_package(ks REQUIRED)
foreach(source first_program.c pac_expiry_in_c.c radius_client.c cache.cc crypto.cc device.cc pac.cc pac_expiry.cc
    secrets.cc)
  get_filename_component(name ${source} NAME_WE)
  add_executable(${name} ${source})
  target_link_libraries(${name} PRIVATE ks::ks)
endforeach()
target_link_libraries(pac_expiry_in_c PRIVATE ks::helpers)
# Stands in front of a platform function, so it has to be visible to the library.
set_target_properties(pac PROPERTIES ENABLE_EXPORTS ON)
