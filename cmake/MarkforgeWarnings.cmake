# Warning policy for our own targets, and the narrow exemptions we make.

# Off for people building the project, whose compiler may know warnings ours
# does not; the project's scripts and CI turn it on.
option(MARKFORGE_WERROR "Treat compiler warnings as errors" OFF)

function(markforge_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra)
  if(MARKFORGE_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  # Trail entries carry source paths relative to the repository root, never
  # the build machine's absolute path.
  target_compile_options(${target} PRIVATE "-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=")
  # GCC 12 cross-compiling for 32-bit ARM at -O2 reports out-of-bounds
  # memmove/memcpy inside libstdc++'s own container code (vector insert, and
  # the copies and tree inserts of nlohmann-json's objects): a known false
  # positive of its inliner; there those two stay warnings, all else errors.
  if(CMAKE_CROSSCOMPILING AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    target_compile_options(${target} PRIVATE -Wno-error=array-bounds -Wno-error=stringop-overflow)
  endif()
  # GCC for 32-bit ARM adds a note to every vector growth that the way such
  # iterators are passed changed in GCC 7.1. Debian builds everything with a
  # later GCC, so the notes concern no code we link with and only bury real
  # warnings in the ARM build's log.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
    target_compile_options(${target} PRIVATE -Wno-psabi)
  endif()
endfunction()

# The RSA_* / PEM_*_RSA* calls are OpenSSL's deprecated low-level key API. The
# key conversions use them on purpose (their output is the classic PKCS#1 and
# SubjectPublicKeyInfo layout those calls define), so only the translation
# units that make them may silence the deprecation warning.
function(markforge_allow_deprecated_rsa)
  set_property(SOURCE ${ARGN} APPEND PROPERTY COMPILE_OPTIONS "-Wno-deprecated-declarations")
endfunction()

# GCC 12 at -O3 (Release) inlines libstdc++'s vector::insert into a few test
# helpers that append to a vector of one or two bytes, then reports the
# memcpy it cannot prove fits as out of bounds (the same false alarm as in
# the ARM build above; fixed in GCC 13). In the files named here it stays a
# warning instead of an error; every other warning still fails the build.
function(markforge_allow_gcc12_insert_false_alarm)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    set_property(SOURCE ${ARGN} APPEND PROPERTY COMPILE_OPTIONS "-Wno-error=array-bounds")
  endif()
endfunction()
