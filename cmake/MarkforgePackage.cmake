# Debian packages made by CPack (cpack -G DEB in the build folder), one per
# install component: markforge-tools (programs, plug-ins, man pages,
# completion, the agent's systemd unit: whatever a folder installs without
# naming a component), one run-time package per shared library, named after
# its SONAME as Debian does, and libmarkforge-dev for writing plug-ins and
# front ends. Meant for a tree configured with CMAKE_INSTALL_PREFIX=/usr and
# MARKFORGE_RELOCATABLE=OFF.

set(MARKFORGE_MAINTAINER "markforge maintainers <maintainers@markforge.example.org>")
# The date of this release, for the packages' change logs (fixed, so that
# two builds of one version make the same files).
set(MARKFORGE_RELEASE_DATE "Mon, 23 Nov 2026 00:00:00 +0000")
set(MARKFORGE_DEB_RELEASE 1)
# Run-time packages the programs and libraries need beyond ours. Listed, not
# computed by dpkg-shlibdeps, which cannot judge a cross build's armhf files
# on an amd64 machine; programs that need more add to this list.
set(MARKFORGE_DEB_SYSTEM_DEPENDS "libc6 (>= 2.34), libgcc-s1 (>= 3.0), libstdc++6 (>= 12), libssl3 (>= 3.0.0)"
    CACHE STRING "Debian run-time dependencies of the programs and libraries")

set(MARKFORGE_LIBRARY_PACKAGES liblockbase1 libgridview1 libmarkforge1)

# Debian's name for the target architecture.
if(CMAKE_LIBRARY_ARCHITECTURE STREQUAL "arm-linux-gnueabihf")
  set(MARKFORGE_DEB_ARCH armhf)
elseif(CMAKE_LIBRARY_ARCHITECTURE STREQUAL "aarch64-linux-gnu")
  set(MARKFORGE_DEB_ARCH arm64)
else()
  execute_process(COMMAND dpkg --print-architecture OUTPUT_VARIABLE MARKFORGE_DEB_ARCH
                  OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()

# /usr/share/doc/<package>/: the copyright file and the change log, which
# Debian wants in every package, compressed without a time stamp.
function(markforge_package_docs package)
  set(version ${PROJECT_VERSION}-${MARKFORGE_DEB_RELEASE})
  set(maintainer ${MARKFORGE_MAINTAINER})
  set(date ${MARKFORGE_RELEASE_DATE})
  set(folder ${PROJECT_BINARY_DIR}/debian/${package})
  configure_file(${PROJECT_SOURCE_DIR}/docs/debian/changelog.in ${folder}/changelog.Debian @ONLY)
  execute_process(COMMAND gzip -9n -c ${folder}/changelog.Debian OUTPUT_FILE ${folder}/changelog.Debian.gz
                  RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "gzip of ${folder}/changelog.Debian failed")
  endif()
  install(FILES ${PROJECT_SOURCE_DIR}/docs/debian/copyright ${folder}/changelog.Debian.gz
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${package})
endfunction()

# <package> <section> <summary> <extended description> <depends>
function(markforge_package package section summary description depends)
  string(TOUPPER ${package} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${package} PARENT_SCOPE)
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section} PARENT_SCOPE)
  set(CPACK_DEBIAN_${upper}_DESCRIPTION "${summary}\n${description}" PARENT_SCOPE)
  set(CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS "${depends}" PARENT_SCOPE)
  set(CPACK_DEBIAN_${upper}_FILE_NAME "${package}_${PROJECT_VERSION}-${MARKFORGE_DEB_RELEASE}_${MARKFORGE_DEB_ARCH}.deb"
      PARENT_SCOPE)
  markforge_package_docs(${package})
endfunction()

set(version "${PROJECT_VERSION}-${MARKFORGE_DEB_RELEASE}")
# What markforge-tools holds, in the package's description.
set(MARKFORGE_DEB_TOOLS_DESCRIPTION "The markforge programs: recaster converts RSA key files and signature\nfiles between formats; markforge builds, signs, inspects, verifies and\ntakes apart signed firmware containers.")
if(TARGET markforge-agent)
  string(APPEND MARKFORGE_DEB_TOOLS_DESCRIPTION " markforge-agent is the signing\nagent that production signing asks, with keys in a key folder or a\nPKCS#11 token, and its systemd unit.")
endif()
string(APPEND MARKFORGE_DEB_TOOLS_DESCRIPTION "\nWith their man pages and bash completion.")
# Libraries only some programs load (the agent's libp11) are added by their
# folders to the global property MARKFORGE_DEB_TOOLS_DEPENDS.
get_property(tools_depends GLOBAL PROPERTY MARKFORGE_DEB_TOOLS_DEPENDS)
list(PREPEND tools_depends "liblockbase1 (= ${version})" "libgridview1 (= ${version})" "libmarkforge1 (= ${version})"
     "${MARKFORGE_DEB_SYSTEM_DEPENDS}")
list(JOIN tools_depends ", " tools_depends)
markforge_package(markforge-tools utils "tool set for signed firmware images"
  "${MARKFORGE_DEB_TOOLS_DESCRIPTION}"
  "${tools_depends}")
markforge_package(liblockbase1 libs "markforge framework library"
  "Object lifecycle and error trail, the application runner, byte buffers,\nRSA keys and digests, shared by the markforge programs."
  "${MARKFORGE_DEB_SYSTEM_DEPENDS}")
markforge_package(libgridview1 libs "markforge text table library"
  "Plain text tables, as the markforge programs draw their help screens."
  "${MARKFORGE_DEB_SYSTEM_DEPENDS}")
markforge_package(libmarkforge1 libs "markforge container, hashing and signing library"
  "The signed container's header and archive, hashing, signing and key\nnames, shared by every markforge front end."
  "liblockbase1 (= ${version}), ${MARKFORGE_DEB_SYSTEM_DEPENDS}")
markforge_package(libmarkforge-dev libdevel "markforge libraries: development files"
  "Headers, link names, the CMake package (find_package(markforge)) and\npkg-config files for writing key-name plug-ins and front ends."
  "liblockbase1 (= ${version}), libgridview1 (= ${version}), libmarkforge1 (= ${version}), libssl-dev (>= 3.0.0)")
foreach(package ${MARKFORGE_LIBRARY_PACKAGES} libmarkforge-dev)
  string(TOUPPER ${package} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_MULTIARCH same)
endforeach()
# A library package declares its SONAME in a shlibs file and refreshes the
# loader's cache through dpkg's ldconfig trigger, as Debian's own do. Both
# are written here: CPack's own shlibs generation would also add postinst
# and postrm scripts that call ldconfig themselves.
foreach(package ${MARKFORGE_LIBRARY_PACKAGES})
  string(TOUPPER ${package} upper)
  string(REGEX REPLACE "${MARKFORGE_SOVERSION}$" "" library ${package})
  file(WRITE ${PROJECT_BINARY_DIR}/debian/${package}/shlibs
       "${library} ${MARKFORGE_SOVERSION} ${package} (>= ${PROJECT_VERSION})\n")
  set(CPACK_DEBIAN_${upper}_PACKAGE_CONTROL_EXTRA
      ${PROJECT_SOURCE_DIR}/docs/debian/triggers ${PROJECT_BINARY_DIR}/debian/${package}/shlibs)
endforeach()
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME markforge)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${MARKFORGE_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${MARKFORGE_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_RELEASE ${MARKFORGE_DEB_RELEASE})
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${MARKFORGE_DEB_ARCH})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://markforge.example.org/")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
include(CPack)
