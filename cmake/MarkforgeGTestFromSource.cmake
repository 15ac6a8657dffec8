# GoogleTest built from Debian's source package (googletest), for targets
# that have no GoogleTest library installed (the 32-bit ARM cross build).
set(MARKFORGE_GTEST_SOURCE "/usr/src/googletest" CACHE PATH "GoogleTest source tree")
if(NOT EXISTS "${MARKFORGE_GTEST_SOURCE}/CMakeLists.txt")
  message(FATAL_ERROR "No GoogleTest sources in ${MARKFORGE_GTEST_SOURCE} (apt-get install googletest)")
endif()
set(BUILD_GMOCK OFF CACHE BOOL "" FORCE)
set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
add_subdirectory("${MARKFORGE_GTEST_SOURCE}" "${CMAKE_BINARY_DIR}/googletest" EXCLUDE_FROM_ALL)
# Recent GoogleTest sources name their targets GTest::* themselves.
if(NOT TARGET GTest::gtest)
  add_library(GTest::gtest ALIAS gtest)
  add_library(GTest::gtest_main ALIAS gtest_main)
endif()
