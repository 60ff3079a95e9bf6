# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

option(KS_LOTS "Compile tests, service and tools in lots: in half the time, but a whole lot again after a change" OFF)

# ks_in_lots(TARGET [SOURCE...]): with KS_LOTS, eight files of the target are compiled as one, but for those that are
# named, which have names of their own that others of the target have, too.
function(ks_in_lots target)
  if(KS_LOTS)
    set_target_properties(${target} PROPERTIES UNITY_BUILD ON)
    set_source_files_properties(${ARGN} PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
  endif()
endfunction()
