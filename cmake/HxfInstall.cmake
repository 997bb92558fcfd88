# What `cmake --install` puts under the prefix: the libraries with their development links,
# the public headers in one folder, pkg-config files, the CMake package (imported targets and
# hxf_add_plugin), the tool, the simulator plugin (installed by hxf_add_plugin), the docs,
# the man page and the licence.
include(CMakePackageConfigHelpers)

set(HXF_INSTALL_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}/hxf")
set(HXF_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/hxf")

install(TARGETS hxf-core hexmoor-framework-common hxf-host-platform
  EXPORT hxfTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES
    include/hxf_common.h
    include/hxf_core.h
    include/hxf_plugin.h
    ${HXF_GENERATED_INCLUDE_DIR}/hxf_core_version.h
    platform/hxf_host_platform.h
  DESTINATION ${HXF_INSTALL_INCLUDEDIR})

# pkg-config: one file per library.
foreach(pc hxf-core hxf-common hxf-host-platform)
  configure_file(cmake/pkgconfig/${pc}.pc.in ${PROJECT_BINARY_DIR}/pkgconfig/${pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/pkgconfig/${pc}.pc
          DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

# CMake: find_package(hxf) gives hxf::core, hxf::common, hxf::host-platform and hxf_add_plugin.
install(EXPORT hxfTargets NAMESPACE hxf:: DESTINATION ${HXF_INSTALL_CMAKEDIR})
configure_package_config_file(cmake/hxfConfig.cmake.in ${PROJECT_BINARY_DIR}/hxfConfig.cmake
  INSTALL_DESTINATION ${HXF_INSTALL_CMAKEDIR}
  PATH_VARS CMAKE_INSTALL_LIBDIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/hxfConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/hxfConfig.cmake
    ${PROJECT_BINARY_DIR}/hxfConfigVersion.cmake
    cmake/hxfPlugin.cmake
    cmake/hxf-plugin.map
  DESTINATION ${HXF_INSTALL_CMAKEDIR})

install(FILES LICENSE README.md docs/ARCHITECTURE.md docs/PLUGINS.md docs/RELIABILITY.md docs/json.md
  docs/MQTT.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs/images DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR})
# The HTML reference, when the docs target has been built.
install(DIRECTORY ${PROJECT_BINARY_DIR}/docs/html DESTINATION ${CMAKE_INSTALL_DOCDIR} OPTIONAL)
install(FILES docs/man/hxf.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
