# What `cmake --install` puts where: GNUInstallDirs says, which below /usr has a library folder for each width. CMake
# takes the build's search path out of what it installs.

# Programs write #include <ks_api.h>: the headers lie in a folder of their own, which ks.pc and ks-config.cmake name.
set(ks_headers ${CMAKE_INSTALL_INCLUDEDIR}/ks)
set(ks_platform_headers ${ks_headers}/platform)

set_target_properties(ks_static PROPERTIES EXPORT_NAME static)
foreach(target ks ks_static)
  target_include_directories(${target} INTERFACE $<INSTALL_INTERFACE:${ks_headers}>)
endforeach()
foreach(target mts sdwrap sysmgr sdb)
  target_include_directories(${target} INTERFACE $<INSTALL_INTERFACE:${ks_headers}>
    $<INSTALL_INTERFACE:${ks_platform_headers}>)
endforeach()
install(TARGETS ks ks_static mts sdwrap sysmgr sdb EXPORT ks_targets)
install(DIRECTORY include/ DESTINATION ${ks_headers} FILES_MATCHING PATTERN "*.h")
# Programs ask by a weak reference for what the host alone offers, so its header is there for all of them.
install(DIRECTORY platform/host/include/ DESTINATION ${ks_headers} FILES_MATCHING PATTERN "*.h")
install(DIRECTORY platform/include/ DESTINATION ${ks_platform_headers} FILES_MATCHING PATTERN "*.h")

# find_package(ks): ks::ks, ks::static, and ks::mts, ks::sdwrap, ks::sysmgr, ks::sdb of the host platform.
include(CMakePackageConfigHelpers)
set(ks_package ${CMAKE_INSTALL_LIBDIR}/cmake/ks)
install(EXPORT ks_targets NAMESPACE ks:: FILE ks-targets.cmake DESTINATION ${ks_package})
configure_package_config_file(cmake/ks-config.cmake.in ${CMAKE_BINARY_DIR}/ks-config.cmake
  INSTALL_DESTINATION ${ks_package})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/ks-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/ks-config.cmake ${CMAKE_BINARY_DIR}/ks-config-version.cmake
  DESTINATION ${ks_package})

# The pkg-config files name folders, which `cmake --install --prefix` may change: they are written then.
foreach(name ks ks-platform)
  install(CODE "
    set(prefix \"\${CMAKE_INSTALL_PREFIX}\")
    set(includedir \"\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}\")
    set(libdir \"\${prefix}/${CMAKE_INSTALL_LIBDIR}\")
    set(vendor_dir \"\${prefix}/lib/ks\")
    set(examples_dir \"\${prefix}/${CMAKE_INSTALL_DOCDIR}/examples\")
    set(version \"${PROJECT_VERSION}\")
    # A linker doesn't look for what a library needs beside it, unless that is a folder of the system's.
    if(NOT prefix STREQUAL \"/usr\")
      set(needed_beside \" -Wl,-rpath-link,\\\${libdir}\")
    endif()
    configure_file(\"${CMAKE_SOURCE_DIR}/cmake/${name}.pc.in\" \"${CMAKE_BINARY_DIR}/${name}.pc\" @ONLY)")
  install(FILES ${CMAKE_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

if(TARGET ksd)
  install(TARGETS ksd DESTINATION ${CMAKE_INSTALL_SBINDIR})
  install(TARGETS ks-session ksctl DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

# Pages of the manual, as far as the target `docs` has made them.
install(DIRECTORY ${CMAKE_BINARY_DIR}/man/ DESTINATION ${CMAKE_INSTALL_MANDIR} OPTIONAL)
install(FILES README.md CHANGELOG.md CONTRIBUTING.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs FILES_MATCHING PATTERN "*.md" PATTERN "*.png")
install(DIRECTORY contrib/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/contrib)
file(GLOB examples CONFIGURE_DEPENDS examples/*.c examples/*.cc examples/*.h)
install(FILES ${examples} DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
install(FILES examples/standalone.cmake DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples RENAME CMakeLists.txt)
