# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

# ks_runtime_sources(TARGET): compiles a target as everything that loads into a client is compiled: no C++ runtime, no
# exceptions, nothing exported that isn't marked so, hardened.
function(ks_runtime_sources target)
  target_compile_options(${target} PRIVATE
    $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions> $<$<COMPILE_LANGUAGE:CXX>:-fno-rtti>
    $<$<COMPILE_LANGUAGE:CXX>:-fno-threadsafe-statics> $<$<COMPILE_LANGUAGE:CXX>:-fvisibility-inlines-hidden>
    -fvisibility=hidden -fstack-protector-strong -fno-plt -ffunction-sections -fdata-sections
    # An exported function is entered by its name, so that one which stands in front of it is too. GCC assumes no less.
    $<$<CXX_COMPILER_ID:Clang>:-fsemantic-interposition>
    # Fortified copies would end the process where an overrun is promised behaviour.
    -U_FORTIFY_SOURCE
    # The order and kind of allocations is promised: the compiler must not merge or remove them.
    -fno-builtin-malloc -fno-builtin-calloc -fno-builtin-free)
  if(CMAKE_SIZEOF_VOID_P EQUAL 4)
    # Arguments are pushed here, and without a frame pointer the unwind tables note each push: a fifth of the library.
    target_compile_options(${target} PRIVATE -fno-omit-frame-pointer)
  endif()
endfunction()

# ks_runtime_library(TARGET SONAME_VERSION MAP): how such a target is linked: by the C driver, so that no C++ runtime is
# needed, with full RELRO and no text relocations.
function(ks_runtime_library target version map)
  ks_runtime_sources(${target})
  set_target_properties(${target} PROPERTIES LINKER_LANGUAGE C SOVERSION ${version} LINK_DEPENDS ${map}
    LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})
  target_link_options(${target} PRIVATE
    -Wl,--version-script=${map} -Wl,--gc-sections -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack -Wl,-z,text
    -Wl,--as-needed -static-libgcc)
  if(NOT KS_SANITIZE)
    target_link_options(${target} PRIVATE -Wl,-z,defs)
  endif()
endfunction()
