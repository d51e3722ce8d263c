# Cross build for the gateway's ARM board (armhf: ARMv7, hard-float EABI) with Debian's cross
# compiler. The target's libraries come from ARMHF_SYSROOT, a tree of unpacked armhf Debian packages
# (`./dev cross` makes it); the C and C++ runtimes are the cross compiler's own, under
# /usr/arm-linux-gnueabihf. Programs run on the host under qemu-arm-static.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

# The toolchain file is read again for every check CMake compiles: hand the sysroot on to those.
if(NOT ARMHF_SYSROOT)
  set(ARMHF_SYSROOT "$ENV{ARMHF_SYSROOT}")
endif()
if(NOT IS_DIRECTORY "${ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf")
  message(FATAL_ERROR "ARMHF_SYSROOT (${ARMHF_SYSROOT}) holds no armhf libraries: run ./dev cross")
endif()
set(ENV{ARMHF_SYSROOT} "${ARMHF_SYSROOT}")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ARMHF_SYSROOT)

# Libraries, headers and package configurations only from the target's trees, never the host's;
# programs (pkg-config, the emulator) from the host.
set(CMAKE_FIND_ROOT_PATH "${ARMHF_SYSROOT}" /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(ENV{PKG_CONFIG_LIBDIR} "${ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${ARMHF_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${ARMHF_SYSROOT}")
set(ENV{PKG_CONFIG_PATH} "")

# Multiarch headers (OpenSSL's configuration) sit in an architecture directory of their own.
foreach(lang C CXX)
  set(CMAKE_${lang}_STANDARD_INCLUDE_DIRECTORIES
      "${ARMHF_SYSROOT}/usr/include/arm-linux-gnueabihf" "${ARMHF_SYSROOT}/usr/include")
  # GCC notes every std:: call whose argument passing changed in GCC 7.1; nothing here links code
  # built by an older compiler.
  set(CMAKE_${lang}_FLAGS_INIT "-Wno-psabi")
endforeach()

# The libraries' own dependencies (libarchive's compressors, libxml2's ICU) are looked up at link
# time in the sysroot, and at run time the emulated loader finds them there too.
set(armhf_lib_path "${ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf:${ARMHF_SYSROOT}/lib/arm-linux-gnueabihf")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${armhf_lib_path}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-rpath-link,${armhf_lib_path}")
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static -L /usr/arm-linux-gnueabihf -E LD_LIBRARY_PATH=${armhf_lib_path})
