# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

option(KS_LOTS
  "Compile tests, service and tools in lots: in two thirds of the time, but a whole lot again after a change" OFF)

if(KS_LOTS AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # GCC looks again and again for memory to use anew, and lots are soon done with it: up to 600 MiB it needn't look.
  add_compile_options(--param=ggc-min-heapsize=600000)
endif()

# ks_in_lots(TARGET): with KS_LOTS, sixteen files of the target are compiled as one.
function(ks_in_lots target)
  set_target_properties(${target} PROPERTIES UNITY_BUILD ${KS_LOTS} UNITY_BUILD_BATCH_SIZE 16)
endfunction()

# ks_apart(SOURCE...): these are compiled by themselves in any case, as they have names of their own that other files of
# their target have, too.
function(ks_apart)
  set_source_files_properties(${ARGN} PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
endfunction()
