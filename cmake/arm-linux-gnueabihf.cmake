# Cross build for 32-bit ARM Linux (armhf) with Debian's cross compiler,
# linking against the armhf OpenSSL and libp11 that scripts/setup.sh unpacks
# into a sysroot folder, and running the built programs under qemu-arm.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

# The toolchain file is read again for every try_compile, where cache values
# of the outer project are not visible: fall back to the environment, then to
# the folder setup.sh uses.
if(NOT MARKFORGE_ARM_SYSROOT)
  if(DEFINED ENV{MARKFORGE_ARM_SYSROOT})
    set(MARKFORGE_ARM_SYSROOT "$ENV{MARKFORGE_ARM_SYSROOT}")
  else()
    get_filename_component(MARKFORGE_ARM_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../.cache/armhf-sysroot" ABSOLUTE)
  endif()
endif()
set(MARKFORGE_ARM_SYSROOT "${MARKFORGE_ARM_SYSROOT}" CACHE PATH "Unpacked armhf OpenSSL, libp11 and SoftHSM2")
set(_armhf_libdir "${MARKFORGE_ARM_SYSROOT}/usr/lib/arm-linux-gnueabihf")
if(NOT EXISTS "${_armhf_libdir}/libcrypto.so")
  message(FATAL_ERROR "No armhf OpenSSL in ${MARKFORGE_ARM_SYSROOT}: run `bash scripts/setup.sh --arm-sysroot`")
endif()

set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf "${MARKFORGE_ARM_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# CLI11 and nlohmann-json are headers only, the same for every architecture:
# the host's Debian packages serve the cross build as they are.
set(CLI11_DIR /usr/share/cmake/CLI11 CACHE PATH "CLI11's CMake package (headers only)")
set(nlohmann_json_DIR /usr/share/cmake/nlohmann_json CACHE PATH "nlohmann-json's CMake package (headers only)")

# pkg-config (libp11) reads the sysroot's .pc files only, and its paths come
# back inside the sysroot.
set(ENV{PKG_CONFIG_LIBDIR} "${_armhf_libdir}/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${MARKFORGE_ARM_SYSROOT}")
set(ENV{PKG_CONFIG_PATH} "")

# The cross compiler also searches the host's /usr/include, where the x86
# OpenSSL headers live; the armhf ones must be found first, including the
# multiarch folder that holds their configuration.h.
set(OPENSSL_ROOT_DIR "${MARKFORGE_ARM_SYSROOT}/usr")
set(OPENSSL_INCLUDE_DIR "${MARKFORGE_ARM_SYSROOT}/usr/include")
set(OPENSSL_CRYPTO_LIBRARY "${_armhf_libdir}/libcrypto.so")
set(OPENSSL_SSL_LIBRARY "${_armhf_libdir}/libssl.so")
set(_armhf_includes "-isystem ${MARKFORGE_ARM_SYSROOT}/usr/include/arm-linux-gnueabihf -isystem ${MARKFORGE_ARM_SYSROOT}/usr/include")
set(CMAKE_C_FLAGS_INIT "${_armhf_includes}")
set(CMAKE_CXX_FLAGS_INIT "${_armhf_includes}")
# The sysroot's libraries need others of the sysroot (p11-kit's libffi) that
# nothing here links directly: the linker finds them there.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${_armhf_libdir}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-rpath-link,${_armhf_libdir}")

# Programs built here (the tests, gtest discovery, the recaster the tests
# spawn) run under user-mode qemu with the cross toolchain's C library and
# the sysroot's libcrypto.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L /usr/arm-linux-gnueabihf -E "LD_LIBRARY_PATH=${_armhf_libdir}")
