# Warning policy for our own targets, and the one narrow exemption we make.

function(markforge_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
  # Trail entries carry source paths relative to the repository root, never
  # the build machine's absolute path.
  target_compile_options(${target} PRIVATE "-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=")
  # GCC 12 cross-compiling for 32-bit ARM at -O2 reports out-of-bounds
  # memmove/memcpy inside libstdc++'s own vector insert (a known false
  # positive of its inliner); there those two stay warnings, all else errors.
  if(CMAKE_CROSSCOMPILING AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    target_compile_options(${target} PRIVATE -Wno-error=array-bounds -Wno-error=stringop-overflow)
  endif()
endfunction()

# The RSA_* / PEM_*_RSA* calls are OpenSSL's deprecated low-level key API. The
# key conversions use them on purpose (their output is the classic PKCS#1 and
# SubjectPublicKeyInfo layout those calls define), so only the translation
# units that make them may silence the deprecation warning.
function(markforge_allow_deprecated_rsa)
  set_source_files_properties(${ARGN} PROPERTIES COMPILE_OPTIONS "-Wno-deprecated-declarations")
endfunction()
