# The installed tree: versioned shared libraries with their headers, the
# CMake package (find_package(markforge)) and pkg-config files.

include(CMakePackageConfigHelpers)

# ABI version of the three shared libraries: liblockbase.so.1 -> .so.1.0.0.
set(MARKFORGE_SOVERSION 1)
set(MARKFORGE_LIBRARY_VERSION 1.0.0)
set(MARKFORGE_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/markforge)
set(MARKFORGE_DEV_COMPONENT libmarkforge-dev)

# Writes <name>.pc for an installed library. The prefix is found from the
# file's own folder, so the tree may be moved (or installed with --prefix).
function(markforge_pkg_config name description requires requires_private)
  set(pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
  file(RELATIVE_PATH pc_to_prefix "/${pc_dir}" "/")
  string(REGEX REPLACE "/$" "" pc_to_prefix "${pc_to_prefix}")
  set(pc_name ${name})
  set(pc_description "${description}")
  set(pc_requires "${requires}")
  set(pc_requires_private "${requires_private}")
  configure_file(${PROJECT_SOURCE_DIR}/cmake/library.pc.in ${PROJECT_BINARY_DIR}/pkgconfig/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/pkgconfig/${name}.pc DESTINATION ${pc_dir}
          COMPONENT ${MARKFORGE_DEV_COMPONENT})
endfunction()

# Versions and installs one shared library of ours: the library itself in
# `component` (its run-time package), its link name, every header of its
# folder (under include/<target>/), its exported target and pkg-config file
# in the development package.
function(markforge_install_library target component)
  set_target_properties(${target} PROPERTIES VERSION ${MARKFORGE_LIBRARY_VERSION} SOVERSION ${MARKFORGE_SOVERSION})
  target_include_directories(${target} PUBLIC
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/${target}>)
  install(TARGETS ${target} EXPORT markforgeTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${component}
            NAMELINK_COMPONENT ${MARKFORGE_DEV_COMPONENT})
  file(GLOB headers CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
  install(FILES ${headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${target} COMPONENT ${MARKFORGE_DEV_COMPONENT})
endfunction()

# The CMake package: imported targets markforge::lockbase, markforge::gridview
# and markforge::markforge, and the version file. Called once every library
# is declared.
function(markforge_install_package)
  install(EXPORT markforgeTargets NAMESPACE markforge:: DESTINATION ${MARKFORGE_CMAKE_DIR}
          COMPONENT ${MARKFORGE_DEV_COMPONENT})
  configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/markforgeConfig.cmake.in
    ${PROJECT_BINARY_DIR}/markforgeConfig.cmake INSTALL_DESTINATION ${MARKFORGE_CMAKE_DIR})
  write_basic_package_version_file(${PROJECT_BINARY_DIR}/markforgeConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
  install(FILES ${PROJECT_BINARY_DIR}/markforgeConfig.cmake ${PROJECT_BINARY_DIR}/markforgeConfigVersion.cmake
          DESTINATION ${MARKFORGE_CMAKE_DIR} COMPONENT ${MARKFORGE_DEV_COMPONENT})
  markforge_pkg_config(lockbase "markforge framework library" "" "libcrypto >= 3.0")
  markforge_pkg_config(gridview "markforge text table library" "" "")
  markforge_pkg_config(markforge "markforge container, hashing and signing library" "lockbase" "libcrypto >= 3.0")
endfunction()
