# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

option(KS_LOTS
  "Compile tests, service and tools in lots: in three quarters of the time, but a whole lot again after a change" OFF)

# ks_in_lots(TARGET): with KS_LOTS, eight files of the target are compiled as one.
function(ks_in_lots target)
  set_target_properties(${target} PROPERTIES UNITY_BUILD ${KS_LOTS})
endfunction()

# ks_apart(SOURCE...): these are compiled by themselves in any case, as they have names of their own that other files of
# their target have, too.
function(ks_apart)
  set_source_files_properties(${ARGN} PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
endfunction()
