# Cross build for ARMv7 hard-float (arm-linux-gnueabihf) with Debian's cross
# compiler, against libcurl, zlib and GoogleTest unpacked from the armhf
# packages into a sysroot (scripts/test --arch armhf makes it):
#
#   cmake -S . -B build/armhf -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-toolchain.cmake \
#         -DKOR_ARMHF_SYSROOT=$PWD/build/armhf-sysroot
#
# The compiler brings its own C library and libstdc++; the sysroot only adds
# the libraries kor links with and, for running under qemu-arm, the armhf
# loader and runtime. Test programs run through CMAKE_CROSSCOMPILING_EMULATOR.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(KOR_TRIPLE arm-linux-gnueabihf)

set(KOR_ARMHF_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/armhf-sysroot"
    CACHE PATH "armhf libraries (libcurl, zlib, libc, GoogleTest) unpacked from Debian packages")
get_filename_component(KOR_ARMHF_SYSROOT "${KOR_ARMHF_SYSROOT}" ABSOLUTE)
# try_compile projects re-read this file; hand them the sysroot.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KOR_ARMHF_SYSROOT)

set(CMAKE_C_COMPILER ${KOR_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${KOR_TRIPLE}-g++)

set(_kor_inc "${KOR_ARMHF_SYSROOT}/usr/include")
set(_kor_libs "${KOR_ARMHF_SYSROOT}/usr/lib/${KOR_TRIPLE}" "${KOR_ARMHF_SYSROOT}/lib/${KOR_TRIPLE}")
# Paths are quoted inside the flags: a clone's path may hold blanks.
set(_kor_flags "-march=armv7-a -mfpu=vfpv3-d16 -mfloat-abi=hard -isystem \"${_kor_inc}/${KOR_TRIPLE}\" -isystem \"${_kor_inc}\"")
set(CMAKE_C_FLAGS_INIT "${_kor_flags}")
set(CMAKE_CXX_FLAGS_INIT "${_kor_flags}")
# Small release binaries: the device's image has little room to spare.
# (The _INIT variables would get CMake's -O3 appended.)
set(CMAKE_C_FLAGS_RELEASE "-Os -DNDEBUG" CACHE STRING "C flags of release builds")
set(CMAKE_CXX_FLAGS_RELEASE "-Os -DNDEBUG" CACHE STRING "C++ flags of release builds")

set(_kor_ld "")
foreach(d ${_kor_libs})
  string(APPEND _kor_ld " \"-L${d}\" \"-Wl,-rpath-link,${d}\"")
endforeach()
set(CMAKE_EXE_LINKER_FLAGS_INIT "${_kor_ld}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_kor_ld}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${_kor_ld}")

# Libraries, headers and package files from the sysroot only; programs
# (pkg-config, mkimage, ...) from the build machine.
set(CMAKE_FIND_ROOT_PATH "${KOR_ARMHF_SYSROOT}")
set(CMAKE_LIBRARY_ARCHITECTURE ${KOR_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} "${KOR_ARMHF_SYSROOT}/usr/lib/${KOR_TRIPLE}/pkgconfig:${KOR_ARMHF_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${KOR_ARMHF_SYSROOT}")

# No binfmt_misc needed: ctest and test discovery run armhf programs through
# qemu-arm, which finds the armhf loader and libraries in the sysroot.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${KOR_ARMHF_SYSROOT})
