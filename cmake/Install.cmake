# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

# What `cmake --install` puts where: GNUInstallDirs says, which below /usr has a library folder for each width. CMake
# takes the build's search path out of what it installs.

# Programs write #include <ks_api.h>: the headers lie in a folder of their own, which ks.pc and ks-config.cmake name.
set(ks_headers ${CMAKE_INSTALL_INCLUDEDIR}/ks)
set(ks_platform_headers ${ks_headers}/platform)
set(KS_EXAMPLES_DIR ${CMAKE_INSTALL_DOCDIR}/examples CACHE STRING "Where examples are installed")

set_target_properties(ks_static PROPERTIES EXPORT_NAME static)
set_target_properties(ks-helpers PROPERTIES EXPORT_NAME helpers)
set_target_properties(ks-helpers_static PROPERTIES EXPORT_NAME helpers_static)
foreach(target ks ks_static ks-helpers ks-helpers_static)
  target_include_directories(${target} INTERFACE $<INSTALL_INTERFACE:${ks_headers}>)
endforeach()
foreach(target mts sdwrap sysmgr sdb)
  target_include_directories(${target} INTERFACE $<INSTALL_INTERFACE:${ks_headers}>
    $<INSTALL_INTERFACE:${ks_platform_headers}>)
endforeach()
install(TARGETS ks ks_static ks-helpers ks-helpers_static mts sdwrap sysmgr sdb EXPORT ks_targets)
install(DIRECTORY include/ helpers/include/ DESTINATION ${ks_headers} FILES_MATCHING PATTERN "*.h" PATTERN "*.hpp")
# Programs ask by a weak reference for what the host alone offers, so its header is there for all of them.
install(DIRECTORY platform/host/include/ DESTINATION ${ks_headers} FILES_MATCHING PATTERN "*.h")
install(DIRECTORY platform/include/ DESTINATION ${ks_platform_headers} FILES_MATCHING PATTERN "*.h")

# find_package(ks): ks::ks, ks::static, ks::helpers, ks::helpers_static, and ks::mts, ks::sdwrap, ks::sysmgr, ks::sdb of
# the host platform.
include(CMakePackageConfigHelpers)
set(ks_package ${CMAKE_INSTALL_LIBDIR}/cmake/ks)
install(EXPORT ks_targets NAMESPACE ks:: FILE ks-targets.cmake DESTINATION ${ks_package})
configure_package_config_file(cmake/ks-config.cmake.in ${CMAKE_BINARY_DIR}/ks-config.cmake
  INSTALL_DESTINATION ${ks_package})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/ks-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/ks-config.cmake ${CMAKE_BINARY_DIR}/ks-config-version.cmake
  DESTINATION ${ks_package})

# The pkg-config files name folders, which `cmake --install --prefix` may change: they are written then.
foreach(name ks ks-helpers ks-platform)
  install(CODE "
    set(prefix \"\${CMAKE_INSTALL_PREFIX}\")
    set(includedir \"\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}\")
    set(libdir \"\${prefix}/${CMAKE_INSTALL_LIBDIR}\")
    set(vendor_dir \"\${prefix}/lib/ks\")
    set(examples_dir \"\${prefix}/${KS_EXAMPLES_DIR}\")
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
  install(FILES service/ksd.toml DESTINATION lib/ks)
  configure_file(service/systemd/ksd.service.in ${CMAKE_BINARY_DIR}/ksd.service @ONLY)
  set(KS_SYSTEMD_UNIT_DIR lib/systemd/system CACHE STRING "Where units of the service manager are installed")
  install(FILES ${CMAKE_BINARY_DIR}/ksd.service service/systemd/ksd.socket DESTINATION ${KS_SYSTEMD_UNIT_DIR})
  configure_file(service/apparmor/usr.sbin.ksd.in ${CMAKE_BINARY_DIR}/usr.sbin.ksd @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/usr.sbin.ksd DESTINATION ${CMAKE_INSTALL_SYSCONFDIR}/apparmor.d)
  install(FILES service/systemd/ksd.catalog DESTINATION lib/systemd/catalog)
  install(FILES service/systemd/sysusers.conf DESTINATION lib/sysusers.d RENAME ksd.conf)
  install(FILES service/systemd/tmpfiles.conf DESTINATION lib/tmpfiles.d RENAME ksd.conf)
endif()

if(TARGET ksd-engine)
  install(TARGETS ksd-engine DESTINATION lib/ks)
  configure_file(service/systemd/ksd-engine@.service.in ${CMAKE_BINARY_DIR}/ksd-engine@.service @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/ksd-engine@.service service/systemd/ksd-engine.socket
    DESTINATION ${KS_SYSTEMD_UNIT_DIR})
  install(FILES service/systemd/ksd.service.engine.conf DESTINATION ${KS_SYSTEMD_UNIT_DIR}/ksd.service.d
    RENAME engine.conf)
  install(FILES service/systemd/ksd-engine.sysusers.conf DESTINATION lib/sysusers.d RENAME ksd-engine.conf)
endif()

# The manual, if it was made.
set(KS_MANUAL ${CMAKE_SOURCE_DIR}/build/man CACHE PATH "Where `./dev docs`, or docs/site/man.py, has put the manual")
foreach(section 1 3 5 7 8)
  install(DIRECTORY ${KS_MANUAL}/ DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} OPTIONAL
    FILES_MATCHING PATTERN "*.${section}")
endforeach()
install(FILES README.md CHANGELOG.md NEWS.md SECURITY.md CONTRIBUTING.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs FILES_MATCHING PATTERN "*.md" PATTERN "*.png")
install(DIRECTORY contrib/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/contrib)
file(GLOB examples CONFIGURE_DEPENDS examples/*.c examples/*.cc examples/*.h)
install(FILES ${examples} DESTINATION ${KS_EXAMPLES_DIR})
install(FILES examples/standalone.cmake DESTINATION ${KS_EXAMPLES_DIR} RENAME CMakeLists.txt)
